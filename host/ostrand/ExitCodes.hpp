// Exit codes of the `ostrand` program, the same for every subcommand.
#pragma once

namespace ostrand {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;      // the work itself failed
inline constexpr int kExitUsage = 2;        // bad command line; --help says how
inline constexpr int kExitNoModule = 3;     // libOstrand.so missing or not loadable
inline constexpr int kExitBadInput = 4;     // input that could not be read or parsed
inline constexpr int kExitUnavailable = 5;  // a resource is busy (port taken, ...)

}  // namespace ostrand
