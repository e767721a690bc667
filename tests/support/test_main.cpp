// Entry point of every test program: refuses to run outside the isolation runner, so that no test
// can write to the host's /opt/zanthe.
#include <gtest/gtest.h>

#include <cstdio>

#include "qvplatform_testctl.h"
#include "test_support.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!qvtest::OptIsPrivateTmpfs()) {
        std::fprintf(stderr, "refusing to run: /opt is not a private tmpfs; run through tests/support/qv_isolate\n");
        return 2;
    }
    QVPLAT_TestSetFreshFill(1);
    return RUN_ALL_TESTS();
}
