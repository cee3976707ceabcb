// Serving one management connection: one request in, then one reply or a
// hand-over of the connection to a stack.
#pragma once

#include "base/dympage.h"
#include "base/socket.h"

// Reads one request from `connection` and carries it out. Borrows the
// connection (the caller closes it) and allocates into the two fresh arenas
// (the caller destroys them). Never throws.
void handle_request(socket_record* connection, dympage* request_arena, dympage* reply_arena);

// Sends one failure reply carrying `reason`.
void reply_failure(socket_record* connection, dympage* reply_arena, const char* reason);
