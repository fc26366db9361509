// Reads a property list with the installed library and prints the version of the installed platform.
#include "platform/Platform.h"
#include "propertylist/Codec.h"

#include <cstdio>

int main() {
    const auto list = appsync::PropertyListCodec().propertyListWithData(
        "<plist version=\"1.0\"><string>installed</string></plist>", nullptr);
    const std::string_view text = list ? list->string().value_or("") : "";
    std::printf("%.*s, platform %u\n", static_cast<int>(text.size()), text.data(), appsync::platformVersion);
    return text == "installed" ? 0 : 1;
}
