#pragma once

#include "qvc/Log.h"

/// Keeps refused inputs out of the log: nearly every input is one. For targets above the rooms that log.
/// "used", because libFuzzer looks for it by a weak reference, for which no inline function is kept.
extern "C" [[gnu::used]] inline int LLVMFuzzerInitialize(int*, char***) {
  qvc::debug::Log::instance().removeAllOutputAdapters();
  return 0;
}
