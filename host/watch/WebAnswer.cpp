#include "host/watch/WebAnswer.h"

#include <microhttpd.h>

#include <utility>

namespace appsync::host {

void FreeWebAnswer::operator()(MHD_Response* response) const noexcept {
    MHD_destroy_response(response);
}

WebAnswer answerWith(MHD_Response* made, const char* type, const char* keep) {
    WebAnswer answer(made);
    const std::pair<const char*, const char*> headers[] = {
        {"Content-Type", type},
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
         "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Cache-Control", keep},
        {"Connection", "close"},
    };
    for (const auto& [name, value] : headers) {
        MHD_add_response_header(answer.get(), name, value);
    }
    return answer;
}

WebAnswer answerOf(std::string_view bytes, const char* type, const char* keep) {
    return answerWith(
        MHD_create_response_from_buffer(bytes.size(), const_cast<char*>(bytes.data()), MHD_RESPMEM_MUST_COPY), type,
        keep);
}

WebAnswer textAnswer(std::string_view text) {
    return answerOf(text, "text/plain; charset=utf-8");
}

WebAnswer jsonAnswer(std::string_view json) {
    return answerOf(json, "application/json");
}

bool send(MHD_Connection* connection, unsigned status, const WebAnswer& answer) {
    return MHD_queue_response(connection, status, answer.get()) == MHD_YES;
}

bool refuse(MHD_Connection* connection) {
    return send(connection, MHD_HTTP_FORBIDDEN,
                textAnswer("Open the address that `qrd watch` has printed; each run of it has a new one.\n"));
}

} // namespace appsync::host
