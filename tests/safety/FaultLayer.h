#pragma once

// The names shared by the interposed file layer and the tests that set it up.
//
// Loaded into a program with LD_PRELOAD, the layer sees each call that opens a file for writing, writes,
// syncs, renames or truncates on a path below one directory. It counts the calls of each kind, fails one of
// them once, and can log them.

namespace faultlayer {

/// Calls count only on paths below this directory (no trailing slash).
inline constexpr const char* DirectoryVariable = "FAULT_LAYER_DIRECTORY";

/// File to append a line to at the start ("<") and at the end (">") of each call: mark, kind, path, and for a
/// rename a tab and the target. A write is marked "!" behind its kind when its bytes hold the word "success".
inline constexpr const char* LogVariable = "FAULT_LAYER_LOG";

/// "<kind> <n> <errno>": the n-th call of that kind, from 1, fails with that error and does nothing. With
/// "on" behind it, all later calls of the kind fail as well. The kinds are open, write, sync, rename,
/// truncate.
inline constexpr const char* FaultVariable = "FAULT_LAYER_FAULT";

} // namespace faultlayer
