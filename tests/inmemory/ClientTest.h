// The fixture of the plug-in's tests: a client on a device in memory.
#pragma once

#include "platform/host/Asset.h"
#include "plugin/client/AppsClient.h"
#include "plugin/client/Paths.h"
#include "tests/inmemory/World.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace appsync {

// How a failed expectation shows them.
inline void PrintTo(const Value& value, std::ostream* out) {
    *out << value.description();
}
inline void PrintTo(const Dictionary& dictionary, std::ostream* out) {
    *out << Value(dictionary).description();
}

} // namespace appsync

namespace appsync::inmemory {

using Lines = std::vector<std::string>;

class ClientTest : public testing::Test {
  protected:
    /// No message of the test had another format than the table has (Formats.h).
    ~ClientTest() override {
        stop();
        EXPECT_EQ(world.log.unknownFormats(), Lines{});
    }
    /// Makes the client, after a test has prepared the world, and empties the journal.
    AppsClient& start(bool useInstallCoordinator = true) {
        world.coordinators.any.enabled = useInstallCoordinator;
        _client = AppsClient::init(world.platform());
        world.journal.take();
        return *_client;
    }
    /// Tears the client down.
    void stop() { _client = nullptr; }
    AppsClient& client() { return *_client; }

    /// The journal since the last look, which it empties.
    Lines journal() { return world.journal.take(); }

    /// Parts of a journal, one after the other.
    static Lines join(std::initializer_list<Lines> parts) {
        Lines all;
        for (const Lines& part : parts) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }
    static Lines join(const Lines& first, const Lines& second) { return join({first, second}); }
    static bool has(const Lines& lines, const std::string& line) {
        return std::ranges::find(lines, line) != lines.end();
    }
    /// The journal's line for a step of the transaction log, for the app "a".
    static std::string step(int number, int phase, bool success, const std::string& description) {
        return "transactions.logStep(" + std::to_string(number) + ", party 1, phase " + std::to_string(phase) +
               ", success " + (success ? "1" : "0") + ", a, \"" + description + "\")";
    }

    /// Puts a to-do list into the work area: pairs of identifier and operation.
    void putToDoList(const std::vector<std::pair<std::string, std::string>>& records) {
        Array list;
        for (const auto& [identifier, operation] : records) {
            list.emplace_back(Dictionary{{"identifier", identifier}, {"operation", operation}});
        }
        world.files.putPlist(paths::toDoList, list);
    }
    /// The operation of the first to-do record of an app, "" when there is none.
    std::string operationOf(std::string_view identifier) {
        const auto list = world.files.plistAt(paths::toDoList);
        for (const Value& record : list && list->array() ? *list->array() : Array{}) {
            if (record.dictionary() && record.dictionary()->string("identifier") == identifier) {
                return std::string(record.dictionary()->string("operation").value_or(""));
            }
        }
        return "";
    }
    static QRAssetPtr makeAsset(std::string_view identifier, std::optional<std::string> prettyName = "Name") {
        return QRAsset::downloadAssetWithIdentifier_dataclass_prettyName(identifier, "Application",
                                                                         std::move(prettyName));
    }

    World world;

  private:
    std::unique_ptr<AppsClient> _client;
};

} // namespace appsync::inmemory
