// The handler kit: what a handler program needs to serve the library's protocol. A handler
// includes this header and links pendrel::handler_kit (which carries the records of
// Pendrel, linked in statically).
//
//   HandlerArguments.h  the command line the library starts a handler with
//   HandlerMessages.h   the messages a handler receives and the answers to the queries
//   CHandlerKit.h       the connection and the loop that answers every message
#pragma once

#include "handler_kit/CHandlerKit.h"
#include "handler_kit/HandlerArguments.h"
#include "handler_kit/HandlerMessages.h"
