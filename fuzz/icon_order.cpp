// Any bytes as the home screen's icon order: every item is placed once.
#include "fuzz/Device.h"

using appsync::fuzz::Device;
using appsync::fuzz::expect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Device device(true);
    device.world.screen.iconOrder = std::string(appsync::fuzz::text(bytes, size));
    appsync::Dictionary items;
    for (const char* identifier : {"a", "b", "com.example.a", "com.example.b"}) {
        items.set(identifier, identifier);
    }
    const appsync::Array ordered = device.client->_orderTheItems(items);
    expect(ordered.size() == 4, "every item is placed once");
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            expect(!(ordered[i] == ordered[j]), "no item is placed twice");
        }
    }
    return 0;
}
