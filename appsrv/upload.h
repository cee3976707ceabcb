// What the request handler's two files share: the upload request and the
// connection's receive time-out.
#pragma once

#include "appsrv/handler.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"

using upload_request = image___appsrv_protocol_request___root___type___upload_t;

// Receives the image of an upload into a staged store and deploys it as a new
// stack that answers the client itself; otherwise answers with the reason.
void handle_upload(socket_record* connection, dympage* reply_arena, const upload_request* upload);

// The time-out of every following receive on the connection; 0 waits
// forever. The option belongs to the connection itself, which a stack shares
// once it is handed over, so the hand-over sets 0 first.
void set_receive_timeout(socket_record* connection, int64_t milliseconds);

// A text field's text; "" when the request left it unset.
inline const char* text_of(const message_text& field) { return field.text != nullptr ? field.text : ""; }
