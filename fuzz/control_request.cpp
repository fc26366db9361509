// Any bytes as a request on the control socket: a request that can be carried out, or a sentence.
#include "fuzz/Fuzz.h"
#include "host/control/ControlSocket.h"

using appsync::fuzz::expect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto request = appsync::host::parseControlRequest(appsync::fuzz::text(bytes, size));
    if (request) {
        const auto again = appsync::host::parseControlRequest(toJson(*request));
        expect(bool(again), "a request can be sent on");
        expect(again->command == request->command, "its command stays");
    }
    return 0;
}
