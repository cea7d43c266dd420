#pragma once

// The names under which the hosts service meets its clients on the session bus.

namespace vt::bus {

inline constexpr char kServiceName[] = "com.veldtrack.Veldtrack.HostsService";
inline constexpr char kObjectPath[] = "/com/veldtrack/Veldtrack/HostsService";
inline constexpr char kRequestInterface[] = "com.veldtrack.Veldtrack.HostsRequest";

// The sign-in application: its bus name tells whether it runs, and it may post this signal (one
// string argument, a JSON message) from any object path.
inline constexpr char kSignInApplicationName[] = "com.veldtrack.Veldtrack.VeldtrackSignIn";
inline constexpr char kNotificationInterface[] = "com.veldtrack.Veldtrack.Notifications";
inline constexpr char kNotificationSignal[] = "VTHostMessage";

// D-Bus errors of the service itself. Adapter errors are never D-Bus errors: they travel in the
// "error" entry of the reply dictionary.
// An argument or record failed checking; the message names the argument and key at fault.
inline constexpr char kInvalidArgumentsError[] = "com.veldtrack.Veldtrack.Error.InvalidArguments";
// The service failed inside (out of memory, a value it cannot encode, ...).
inline constexpr char kFailedError[] = "com.veldtrack.Veldtrack.Error.Failed";
// The service stopped before the request finished.
inline constexpr char kStoppingError[] = "com.veldtrack.Veldtrack.Error.Stopping";

}  // namespace vt::bus
