#!/bin/sh
# Proves that the isolation runner keeps test files off the host: a file written under /opt/zanthe
# inside the runner is there for the program, and afterwards neither the file nor any change to the
# host's /opt remains.
set -eu
isolate=$1
marker=/opt/zanthe/var/log/isolation-check-$$

listing() { ls -laR /opt 2>/dev/null | md5sum; }
before=$(listing)

"$isolate" sh -c "echo inside > $marker && [ \"\$(cat $marker)\" = inside ]" || {
    echo "FAIL: the program could not write $marker inside the runner"
    exit 1
}
if [ -e "$marker" ]; then
    echo "FAIL: $marker leaked to the host"
    exit 1
fi
if [ "$(listing)" != "$before" ]; then
    echo "FAIL: the host's /opt changed"
    exit 1
fi
echo "isolation holds: $marker stayed inside"
