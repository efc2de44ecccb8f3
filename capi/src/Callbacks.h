// Calling the host back: results are lent as handles for the call only.
#pragma once

#include <memory>

#include <ZorvaneCoreKit/ZVError.h>

#include "HandleTable.h"

namespace zvr {

/// Calls `call(resultHandle, errorHandle)` exactly once, the handles valid
/// for the call. Should the table be full or memory run out, the call still
/// happens, with both NULL, so that a host waiting for it is not left hanging.
template <class Call>
void lend(Kind kind, std::shared_ptr<void> result, ZVErrorPtr error, Call&& call) {
  std::unique_ptr<Borrowed> lentResult, lentError;
  try {
    lentResult = std::make_unique<Borrowed>(kind, std::move(result));
    lentError = std::make_unique<Borrowed>(Kind::Error, std::move(error));
  } catch (...) {
    lentResult.reset();
    lentError.reset();
  }
  call(lentResult ? lentResult->get() : nullptr, lentError ? lentError->get() : nullptr);
}

/// Whether this thread is inside the host's log sink, where the SDK must not
/// log again (the logger would wait for its own lock).
bool insideLogSink();

}  // namespace zvr
