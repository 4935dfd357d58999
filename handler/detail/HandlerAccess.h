// What the library's own code (the handler pool) may see of a CHandler beyond its public
// face: a wait for the end of its process that outlives the handler, so that a handler can be
// let go of at once and its end waited for later, elsewhere.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "handler/CHandler.h"
#include "handler/detail/HandlerState.h"

namespace CTolvane::detail {

struct HandlerAccess {
  // A wait for the end of the process of `handler`'s last Start (as GetHandlerExit), usable
  // after the handler has let go of it and after the handler is gone; empty when the handler
  // holds no process. Owner's thread, not while Start runs.
  static std::function<CHandlerExit(std::chrono::milliseconds)> ExitWaiter(CHandler& handler) {
    const std::shared_ptr<Connection> connection = handler.m_state->connection;
    if (!connection || connection->child.Id() == 0) return {};
    return connection->child.ExitWaiter();
  }
};

}  // namespace CTolvane::detail
