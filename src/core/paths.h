// The fixed paths of the agent's files and of the libraries it loads. Tests never change them: they
// run in a private mount namespace where these paths lead to a scratch file system.
#ifndef QV_CORE_PATHS_H
#define QV_CORE_PATHS_H

namespace qv::path {

inline constexpr const char kTraceFile[] = "/opt/zanthe/var/log/qvagent.log";
inline constexpr const char kDevLogFormat[] = "/opt/zanthe/var/log/DevLog_%s.log";
inline constexpr const char kBlackboxDir[] = "/opt/zanthe/var/";  // the file system that sizes the box
inline constexpr const char kBlackboxFormat[] = "/opt/zanthe/var/LOG_%s_blackbox";
inline constexpr const char kBootLogFormat[] = "/opt/zanthe/var/log/%s.log";
inline constexpr const char kDevmBasicLib[] = "/usr/local/lib/libdevmbasic.so";
inline constexpr const char kDevmDbLib[] = "/usr/local/lib/libdevmdb.so";

// Environment variable that names the service type.
inline constexpr const char kServiceTypeEnv[] = "PX_SERVICE_TYPE";

}  // namespace qv::path

#endif
