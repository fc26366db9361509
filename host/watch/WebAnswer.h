// The answers that `qrd watch` gives a browser, each with what the browser may do with it.
#pragma once

#include <memory>
#include <string_view>

struct MHD_Connection;
struct MHD_Response;

namespace appsync::host {

struct FreeWebAnswer {
    void operator()(MHD_Response* response) const noexcept;
};
using WebAnswer = std::unique_ptr<MHD_Response, FreeWebAnswer>;

/// Takes what the library has made. `keep` says whether a browser may.
[[nodiscard]] WebAnswer answerWith(MHD_Response* made, const char* type, const char* keep = "no-store");
[[nodiscard]] WebAnswer answerOf(std::string_view bytes, const char* type, const char* keep = "no-store");
[[nodiscard]] WebAnswer textAnswer(std::string_view text);
[[nodiscard]] WebAnswer jsonAnswer(std::string_view json);

/// False when there is no memory for it.
[[nodiscard]] bool send(MHD_Connection* connection, unsigned status, const WebAnswer& answer);
/// To who has not entered.
[[nodiscard]] bool refuse(MHD_Connection* connection);

} // namespace appsync::host
