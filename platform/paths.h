// Every fixed path of the system, spelled once as it stands on a real host,
// and the one seam that roots them elsewhere: with ZN_ROOT=/some/dir in the
// environment, "/var/zn/cfg/znpex.acls" becomes "/some/dir/var/zn/cfg/znpex.acls".
// Tests and the demo set ZN_ROOT; production leaves it unset.
#pragma once

#include <string>

namespace zn::paths {

inline constexpr char kRootEnv[] = "ZN_ROOT";

// Registry and state.
inline constexpr char kStateDir[] = "/var/zn";
inline constexpr char kRegistryTree[] = "/var/zn/IW/registry/local_tree";
inline constexpr char kNodeIdFile[] = "/var/zn/IW/node_id";
inline constexpr char kDomainNameFile[] = "/var/zn/cfg/domain_name";
inline constexpr char kTraceDir[] = "/var/zn/trace";
inline constexpr char kSocketDir[] = "/var/zn/soc";
inline constexpr char kPexSocket[] = "/var/zn/soc/znpex.sock";
inline constexpr char kDiTablesDir[] = "/var/zn/IW/di";

// Access control list of the monitoring service.
inline constexpr char kAclFile[] = "/var/zn/cfg/znpex.acls";
inline constexpr char kAclLockFile[] = "/var/zn/lck/znpex.acls.lock";
inline constexpr char kAclDefaultFile[] = "/usr/sbin/tarn/cfg/znpex.acls";
inline constexpr char kCopyCommand[] = "/bin/cp %s %s 2>&1";

// Host authentication files.
inline constexpr char kThlFile[] = "/var/zn/cfg/zn_has.thl";
inline constexpr char kPrivateKeyFile[] = "/var/zn/cfg/zn_has.qkf";
inline constexpr char kPublicKeyFile[] = "/var/zn/cfg/zn_has.pkf";
// Which node each name of the trusted host list was stored for.
inline constexpr char kThlOwnersFile[] = "/var/zn/cfg/zn_has.owners";
// The hardware frames' shared secret keys (root only).
inline constexpr char kFrameKeyStore[] = "/var/zn/cfg/frame.keys";

// Reachability poller.
inline constexpr char kFping[] = "/usr/sbin/fping";
inline constexpr char kFpingCommand[] = "/usr/sbin/fping  -f%s -t%d -u";
inline constexpr char kFpingList[] = "/tmp/fpinglist";

// Console (partition monitor) tools and their result files.
inline constexpr char kLsysu[] = "/opt/ysu/bin/lsysu";
inline constexpr char kGetCimStatus[] = "/opt/wex/bin/getcimstatus";
inline constexpr char kSetKeyOnCecCommand[] = "/opt/wex/bin/setkeyoncec %s %s %d";
inline constexpr char kActivePartitionList[] = "/tmp/actptnlist.txt";
inline constexpr char kPartitionList[] = "/tmp/ptnlist.txt";
inline constexpr char kCecList[] = "/tmp/ceclist.txt";
inline constexpr char kSetKeyResult[] = "/tmp/setkeyresult.txt";

// Node-side and remote shell tools.
inline constexpr char kNodeStatus[] = "/opt/wex/wexbin/nodestatus";
inline constexpr char kRemoteShellExpectCommand[] = "/opt/wex/wexbin/remoteshell.expect -n %s";
inline constexpr char kSsh[] = "/usr/bin/ssh";
inline constexpr char kScp[] = "/usr/bin/scp";

// The node agent: the frame's secret it was provisioned with (root only).
inline constexpr char kNodeAgentSecret[] = "/var/zn/cfg/orvnode.secret";

// The root named by ZN_ROOT, without a trailing slash; "" when unset or empty.
std::string root();

// A fixed absolute path under the root. Relative paths are returned unchanged.
std::string resolve(const std::string& fixedPath);

// A command line whose first word is a fixed absolute path: roots that word and
// keeps the rest as it is ("/bin/cp %s %s 2>&1" -> "<root>/bin/cp %s %s 2>&1").
std::string resolveCommand(const std::string& commandLine);

// Creates the directory that will hold `path` (and its parents), mode 0755.
// Returns 0, or an errno value.
int ensureParentDir(const std::string& path);

}  // namespace zn::paths
