// An app to be restored, and the journal of the placeholder that is made for it, in parts.
#pragma once

#include "tests/inmemory/ClientTest.h"

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <string>

namespace appsync {

using inmemory::Lines;

class RestoreFixture : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(); }
    static Lines madePlaceholder(int installType, const std::string& name = "Title") {
        const std::string type = std::to_string(installType);
        return {step(4, 1, true, "Create placeholder"),
                "placeholders.init(" + name + ", a, install type " + type + ", client 3)",
                "log: Created placeholder <placeholder a> for 'a' of type " + type,
                step(4, 2, true, "Finished creating placeholder")};
    }
    /// The whole journal of a placeholder with everything.
    Lines wholePlaceholder(int installType) const {
        return join({directory, icon, madePlaceholder(installType), iconPromise, attributes, storeMetadata, sinfSet,
                     configured});
    }

    Dictionary metadata{{"title", "Title"}, {"bundleVersion", "1.2"}, {"PDApplicationLaunchProhibited", true}};
    const std::string metadataText = "{title = Title; bundleVersion = 1.2; PDApplicationLaunchProhibited = 1;}";
    std::optional<Data> sinfData = Data("seven!!");
    std::optional<Data> iconData = Data("four");

    const std::string directoryPath = "/tmp/com.zuvex.qrd.Apps/a.app";
    const std::string iconPath = directoryPath + "/Icon.png";
    const std::string createDirectory =
        "files.createDirectory(" + directoryPath + ", with intermediates, owner mobile, group mobile)";
    const Lines directory{createDirectory,
                          "log: Created app directory for 'a' at " + directoryPath + " with err=(null)"};
    const std::string createIcon = "files.createFile(" + iconPath + ", owner mobile, group mobile)";
    const Lines icon{createIcon, "files.attributesOfItem(" + iconPath + ")",
                     "log: icon data for 'a' was writen to " + iconPath + " with status:1 fileSize:4"};
    const Lines iconPromise{"promises.transfer(a-Icon, client 3, file://" + iconPath + ", 4)",
                            "promise(a-Icon).setPercentComplete(1.000000)", "promise(a-Icon).setComplete(1)",
                            "placeholder(a).setIconPromise(<promise a-Icon>)",
                            "log: Added icon promise to placeholder for 'a'"};
    static Lines attributesSet(const std::string& attributes) {
        return {"placeholder(a).setPlaceholderAttributes(" + attributes + ")",
                "log: set " + attributes + " placeholder attributes for a"};
    }
    const Lines attributes = attributesSet("<launchProhibited=1 bundleVersion=1.2 infoPlist=(null)>");
    const Lines storeMetadata{"placeholder(a).setMetadata(" + metadataText + ")",
                              "log: set store metadata on placeholder for a"};
    const Lines sinfSet{"placeholder(a).setSinfData(<seven!!>)", "log: set SINF data on placeholder for a"};
    const Lines configured{"placeholder(a).setConfigurationComplete()",
                           "log: set placeholder configuration complete for a"};
};

} // namespace appsync
