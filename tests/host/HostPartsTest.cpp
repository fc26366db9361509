// The host's parts: the transfer queue, the device service, tables, reports, progress.
#include "host/control/Interrupt.h"
#include "host/transfer/TransferQueue.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <csignal>
#include <sstream>

namespace appsync::host {
namespace {

QRAssetPtr makeAsset(const std::string& identifier) {
    return QRAsset::downloadAssetWithIdentifier_dataclass_prettyName(identifier, "Application", std::nullopt);
}

class Transfers : public testing::Test {
  protected:
    std::shared_ptr<TransferQueue> queue = std::make_shared<TransferQueue>(std::vector<std::string>{"a", "b", "c"});
    DeviceService service;
    std::vector<ErrorPtr> completions;
    void prioritize(const std::string& identifier) {
        service.prioritizeAsset_withCompletion(makeAsset(identifier),
                                               [this](const ErrorPtr& error) { completions.push_back(error); });
    }
    std::string next() { return queue->next().value_or(""); }
    /// The rest of the queue, one identifier after another.
    std::string rest() {
        std::string all;
        while (const auto app = queue->next()) {
            all += *app;
        }
        return all;
    }
};

TEST_F(Transfers, ComeInTheirOrder) {
    EXPECT_EQ(rest(), "abc");
}

TEST_F(Transfers, ComeFirstWhenAPersonSaysSo) {
    service.setQueue(queue);
    prioritize("c");
    EXPECT_EQ(rest(), "cab");
    prioritize("b");
    ASSERT_EQ(completions.size(), 2u);
    EXPECT_EQ(completions[0], nullptr);
    EXPECT_NE(completions[1], nullptr);
}

TEST_F(Transfers, CanBeCancelledUntilTheyHaveEnded) {
    service.setQueue(queue);
    EXPECT_EQ(next(), "a");
    service.cancelAssetTransferForFailedAsset(makeAsset("a"));
    service.cancelAssetTransferForFailedAsset(makeAsset("c"));
    EXPECT_TRUE(queue->isCancelled("a"));
    EXPECT_FALSE(queue->isCancelled("b"));
    EXPECT_TRUE(queue->isCancelled("c"));
    next();
    EXPECT_FALSE(queue->cancel("a"));
    EXPECT_FALSE(queue->cancel("x"));
}

TEST_F(Transfers, CannotBeReachedWhenNoSyncRuns) {
    prioritize("a");
    EXPECT_NE(completions.at(0), nullptr);
    service.cancelAssetTransferForFailedAsset(makeAsset("a"));
    EXPECT_FALSE(queue->isCancelled("a"));
    EXPECT_EQ(service.sharedInstance().get(), &service);
    EXPECT_TRUE(service.respondsToPrioritizeAsset());
    EXPECT_TRUE(service.respondsToCancelAssetTransferForFailedAsset());
}

TEST(ErrorClasses, CountAnEndedSyncAndAFullDiskAsPassing) {
    ErrorClassification errors;
    EXPECT_TRUE(errors.QRIsRecoverableError(transferError(TransferError::interrupted, "")));
    EXPECT_TRUE(errors.QRIsRecoverableError(transferError(TransferError::noSpace, "")));
    EXPECT_TRUE(errors.QRIsRecoverableError(Error::make(posixErrorDomain, ENOSPC)));
    EXPECT_FALSE(errors.QRIsRecoverableError(transferError(TransferError::cancelledByUser, "")));
    EXPECT_FALSE(errors.QRIsRecoverableError(transferError(TransferError::sourceFailed, "")));
    EXPECT_FALSE(errors.QRIsRecoverableError(Error::make(posixErrorDomain, EACCES)));
    EXPECT_FALSE(errors.QRIsRecoverableError(Error::make("Other", 1)));
    EXPECT_FALSE(errors.QRIsRecoverableError(nullptr));
}

TEST(ErrorClasses, CountAnAppThatMayBeBusyAsPassingWhileTheSyncIsInterrupted) {
    ErrorClassification errors;
    const ErrorPtr unknownAnswer = Error::make(posixErrorDomain, EINVAL);
    EXPECT_FALSE(errors.QRIsRecoverableError(unknownAnswer));
    const Interrupt interrupt;
    EXPECT_FALSE(errors.QRIsRecoverableError(unknownAnswer));
    std::raise(SIGINT);
    EXPECT_TRUE(errors.QRIsRecoverableError(unknownAnswer));
    EXPECT_FALSE(errors.QRIsRecoverableError(Error::make(posixErrorDomain, EACCES)));
}

// What a person sees.

TEST(Tables, LineUpTheirColumns) {
    Table table({"App", "Result", "Reason"});
    table.add({"Caf\xC3\xA9", "failed", "no\nroom"});
    table.add({"Long name", "done", ""});
    std::ostringstream out;
    table.print(out);
    EXPECT_EQ(out.str(), "App        Result  Reason\n"
                         "Caf\xC3\xA9       failed  no room\n"
                         "Long name  done\n");
}

TEST(Tables, CountTheColumnsThatAreShown) {
    Table table({"App", "Version"});
    table.add({"日本", "1"});
    table.add({"e\u0301\u0301", "2"});
    table.add({"a\u202Eb\x1b[", "3"});
    std::ostringstream out;
    table.print(out);
    EXPECT_EQ(out.str(), "App    Version\n"
                         "日本   1\n"
                         "e\u0301\u0301      2\n"
                         "a\uFFFDb\uFFFD[  3\n");
}

TEST(Tables, CutLongNames) {
    Table table({"App", "Reason"});
    table.add({std::string(1'000'000, 'x'), std::string(300, 'y')});
    std::ostringstream out;
    table.print(out);
    EXPECT_NE(out.str().find("\n" + std::string(60, 'x') + "…  " + std::string(300, 'y') + "\n"), std::string::npos);
}

TEST(Printing, MakesAWholeLinePrintable) {
    std::ostringstream out;
    printLine(out, "a\nb\x1b[2J\xFF\u202E");
    printLine(out, std::string(1'000'000, 'x'));
    EXPECT_EQ(out.str(), "a b\uFFFD[2J\uFFFD\uFFFD\n" + std::string(maxLineLength, 'x') + "…\n");
}

TEST(Printing, WritesJsonExactlyAndInAscii) {
    const nlohmann::ordered_json json{{"name", "a\n\u202E\u009B\x7Fü\x1b\"日\U0001F600"}};
    std::ostringstream out;
    printJson(out, json);
    EXPECT_TRUE(std::ranges::all_of(out.str(), [](char c) { return c == '\n' || (c >= ' ' && c < 0x7F); }))
        << out.str();
    EXPECT_EQ(nlohmann::ordered_json::parse(out.str()), json);
    out.str("");
    printJson(out, nlohmann::ordered_json{{"name", "\xFF"}}); // what is no UTF-8
    EXPECT_EQ(nlohmann::ordered_json::parse(out.str())["name"], "\uFFFD");
}

TEST(Printing, WritesXmlForATerminalWithReferencesForWhatItShouldNotGet) {
    const std::string xml = "<string>\n\tü\u202E\u009B\u2028</string>";
    std::ostringstream out;
    printXml(out, xml, true);
    EXPECT_EQ(out.str(), "<string>\n\tü&#x202E;&#x9B;&#x2028;</string>");
    out.str("");
    printXml(out, xml, false);
    EXPECT_EQ(out.str(), xml);
}

TEST(Tables, TellSizesInTheUnitThatFits) {
    EXPECT_EQ(sizeText(0), "0 bytes");
    EXPECT_EQ(sizeText(999), "999 bytes");
    EXPECT_EQ(sizeText(1500), "1.5 kB");
    EXPECT_EQ(sizeText(40'000'000), "40.0 MB");
    EXPECT_EQ(sizeText(2'000'000'000'000'000), "2000.0 TB");
}

SyncReport sampleReport() {
    SyncReport report;
    report.apps = {{"com.a", "A", "1.1", AppResult::updated, "", "1.0", 1234},
                   {"", "B.archive", std::nullopt, AppResult::failed, "It is damaged."}};
    report.problems = {"'x' is no archive."};
    report.unchanged = 3;
    report.bytes = 1234;
    report.bytesNeeded = 5000;
    report.bytesFree = 4000;
    return report;
}

TEST(Reports, PrintATableAndNotes) {
    std::ostringstream out;
    printTable(out, sampleReport());
    EXPECT_EQ(out.str(), "App        Version     Result   Reason\n"
                         "A          1.0 -> 1.1  updated\n"
                         "B.archive  -           failed   It is damaged.\n");
    std::ostringstream notes;
    printNotes(notes, sampleReport());
    EXPECT_EQ(notes.str(), "note: 'x' is no archive.\n");
}

TEST(Reports, OfADryRunSayHowMuchItIsAndWhatTheDeviceLacks) {
    SyncReport report = sampleReport();
    report.isDryRun = true;
    std::ostringstream out;
    printTable(out, report);
    EXPECT_TRUE(out.str().starts_with("App        Version     Would be  Reason\n")) << out.str();
    std::ostringstream amounts;
    printAmounts(amounts, report);
    EXPECT_EQ(amounts.str(), "1.2 kB to send, 3 unchanged; the device needs about 5.0 kB and has 4.0 kB free\n");
    std::ostringstream notes;
    printNotes(notes, report);
    EXPECT_TRUE(notes.str().ends_with("note: the device may lack about 1.0 kB; remove something from it first\n"));
    report.bytesFree.reset();
    std::ostringstream unknown;
    printAmounts(unknown, report);
    EXPECT_EQ(unknown.str(), "1.2 kB to send, 3 unchanged\n");
}

TEST(Reports, PrintJson) {
    SyncReport report = sampleReport();
    report.isDryRun = true;
    report.apps[0].name = "bad \xFF text";
    report.failure = transferError(TransferError::interrupted, "Why.");
    report.began = ReportTime(std::chrono::seconds(1'800'000'000));
    std::ostringstream out;
    printJson(out, toJson(report));
    const auto json = nlohmann::json::parse(out.str());
    EXPECT_EQ(json["version"], 1);
    EXPECT_EQ(json["done"], false);
    EXPECT_EQ(json["dryRun"], true);
    EXPECT_EQ(json["interrupted"], false);
    EXPECT_EQ(json["began"], "2027-01-15T08:00:00.000000Z");
    EXPECT_EQ(json["ended"], nullptr);
    EXPECT_EQ(json["apps"][0]["identifier"], "com.a");
    EXPECT_EQ(json["apps"][0]["result"], "updated");
    EXPECT_EQ(json["apps"][0]["from"], "1.0");
    EXPECT_EQ(json["apps"][0]["to"], "1.1");
    EXPECT_EQ(json["apps"][0]["size"], 1234);
    EXPECT_FALSE(json["apps"][0].contains("reason"));
    EXPECT_EQ(json["apps"][1]["identifier"], nullptr);
    EXPECT_EQ(json["apps"][1]["to"], nullptr);
    EXPECT_EQ(json["apps"][1]["reason"], "It is damaged.");
    EXPECT_EQ(json["unchanged"], 3);
    EXPECT_EQ(json["bytes"], 1234);
    EXPECT_EQ(json["bytesNeeded"], 5000);
    EXPECT_EQ(json["bytesFree"], 4000);
    EXPECT_EQ(json["bytesMissing"], 1000);
    EXPECT_EQ(json["problems"][0], "'x' is no archive.");
    EXPECT_EQ(json["failure"], "Why.");
}

TEST(Reports, AreDoneOnlyWhenEverythingIs) {
    using enum AppResult;
    SyncReport report;
    EXPECT_TRUE(report.allDone());
    for (const AppResult good : {installed, updated, downgraded, removed, restored, demoted, unchanged}) {
        report.apps = {{"a", "A", std::nullopt, good, ""}};
        EXPECT_TRUE(report.allDone()) << nameOf(good);
    }
    for (const AppResult bad : {waiting, cancelled, refused, failed}) {
        report.apps = {{"a", "A", std::nullopt, bad, ""}};
        EXPECT_FALSE(report.allDone()) << nameOf(bad);
        report.apps[0].isPassedOver = true;
        EXPECT_TRUE(report.allDone()) << nameOf(bad);
    }
    report.apps.clear();
    report.interrupted = true;
    EXPECT_FALSE(report.allDone());
    report.interrupted = false;
    report.failure = Error::make("D", 1);
    EXPECT_FALSE(report.allDone());
    report.apps = {{"a", "A", std::nullopt, restored, ""}};
    report.isIncomplete = true;
    EXPECT_FALSE(report.allDone());
}

TEST(Reports, GiveReasonsInWords) {
    EXPECT_EQ(reasonOf(nullptr), "");
    EXPECT_EQ(reasonOf(transferError(TransferError::noSpace, "Full.")), "Full.");
    EXPECT_EQ(reasonOf(Error::make(QRErrorDomain, 1)),
              "The device could not prepare the install; `qrd log` tells why.");
    EXPECT_EQ(reasonOf(Error::make(QRErrorDomain, 30)), "The sync ended before the app had arrived.");
    EXPECT_EQ(reasonOf(Error::make("D", 7)), "D 7");
}

} // namespace
} // namespace appsync::host
