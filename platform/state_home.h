// platform/state_home.h: the state directory where none is named, and where a user's programs keep their state.
//
// Threads: every function may be called from any thread, as long as nobody changes the environment meanwhile.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// Where a user's own programs keep their state: $XDG_STATE_HOME, else $HOME/.local/state; empty without a home. As the
// XDG base directory specification has it, a relative name in the variable counts as none.
[[nodiscard]] std::string UserStateHome();

// The state directory where none is named: $QXSVC_ROOT, else /var/lib/qxsvc for root and $XDG_STATE_HOME/qxsvc for
// anybody else, $HOME/.local/state/qxsvc without that variable. Without a separator at its end; empty when a user has
// no home.
[[nodiscard]] std::string DefaultStateDirectory();
// The same without QXSVC_ROOT: where the host's own service keeps its state.
[[nodiscard]] std::string HostStateDirectory();
inline constexpr std::string_view kSystemStateDirectory = "/var/lib/qxsvc";  // that of root

}  // namespace platform
