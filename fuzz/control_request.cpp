// Any bytes as a request on the control socket: a request that can be carried out, or a sentence.
#include "fuzz/Fuzz.h"
#include "host/control/ControlSocket.h"

using appsync::fuzz::expect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    appsync::host::ControlRequest request;
    std::string problem;
    const bool isRequest = appsync::host::parseControlRequest(appsync::fuzz::text(bytes, size), request, problem);
    expect(isRequest == problem.empty(), "there is a request or a problem");
    if (isRequest) {
        appsync::host::ControlRequest again;
        expect(appsync::host::parseControlRequest(toJson(request), again, problem), "a request can be sent on");
        expect(again.command == request.command, "its command stays");
    }
    return 0;
}
