// SPDX-License-Identifier: Apache-2.0
// The command line, against a service in this process: tests/data/migratectl.txt says what each command sends, prints
// and returns, and in which form.
#include <charconv>
#include <fstream>

#include "kits_fixture.h"
#include "migratectl_command.h"
#include "native_migrate/migrate_callback_stub.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "native_migrate/set_backup_file_own_stub.h"

namespace VEXA::UpdateEngine {
namespace {

// A request that is expected, its answer, and an event for the receiver that was registered, sent before the answer.
struct Step {
    uint32_t code = 0;
    Fields request = {};
    Fields replies = {};
    int32_t result = 0;
    std::string event = "";
};

struct Case {
    std::string line;
    size_t width = 0;
    std::vector<Step> steps = {};
    std::map<char, std::string> expected = {{'=', "0"}, {'j', "null"}, {'1', ""}, {'2', ""}};
};

const Field ERROR = "E";
const std::string FINE = R"({"message":"","errorNum":0,"data":[]})";
const std::string REFUSED = R"({"message":"n\u009b","errorNum":3,"data":[{"errorCode":23,"errorMessage":"a\u001b"}]})";

std::vector<std::string> Split(std::string text, const std::string& separator)
{
    std::vector<std::string> parts;
    for (size_t end = 0; (end = text.find(separator)) != std::string::npos; text.erase(0, end + separator.size())) {
        parts.push_back(text.substr(0, end));
    }
    parts.push_back(text);
    return parts;
}

Fields ParseFields(const std::string& text)
{
    static const std::map<char, Field (*)(const std::string&)> kinds{
        {'u', [](const std::string& value) -> Field { return static_cast<uint32_t>(std::stoul(value)); }},
        {'i', [](const std::string& value) -> Field { return std::stoi(value); }},
        {'l', [](const std::string& value) -> Field { return int64_t{std::stoll(value)}; }},
        {'b', [](const std::string& value) -> Field { return value == "1"; }},
        {'o', [](const std::string&) -> Field { return AN_OBJECT; }},
        {'w', [](const std::string& value) -> Field { return AAFwk::Want().SetAction(value); }},
        {'s', [](const std::string& value) -> Field { return value; }}};
    Fields fields;
    for (const std::string& word : Split(text, " | ")) {
        fields.push_back(word.find(':') == 1 ? kinds.at(word[0])(word.substr(2)) : Field(word));
    }
    return text.empty() ? Fields() : fields;
}

std::string Unescape(std::string text)
{
    for (size_t at = 0; (at = text.find("\\x", at)) != std::string::npos; at++) {
        text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
    }
    for (size_t at = 0; (at = text.find("-PID")) != std::string::npos;) {
        text.replace(at, 4, std::to_string(-getpid()));
    }
    return text;
}

std::vector<Case> ReadCases(std::map<int32_t, std::string>& results)
{
    std::vector<Case> cases;
    std::ifstream file(NM_TEST_DATA_DIR "/migratectl.txt");
    for (std::string line; std::getline(file, line);) {
        const char kind = line.empty() ? '#' : line[0];
        if (kind == '#') {
            continue;
        }
        int number = 0;
        const char* const end = line.data() + line.size();
        const char* const after = std::from_chars(line.data() + 1, end, number).ptr;
        const std::string rest = Unescape(std::string(after + (after != end && *after == ' ' ? 1 : 0), end));
        if (kind == '$') {
            cases.push_back({rest, static_cast<size_t>(number)});
        } else if (kind == '>') {
            cases.back().steps.push_back({static_cast<uint32_t>(number), ParseFields(rest)});
        } else if (kind == '<') {
            cases.back().steps.back().replies = ParseFields(rest);
            cases.back().steps.back().result = number;
        } else if (kind == '%') {
            results[number] = rest;
        } else if (kind == '!') {
            cases.back().steps.back().event = rest;
        } else if (kind == '1' || kind == '2') {
            cases.back().expected[kind] += rest + '\n';
        } else {
            cases.back().expected[kind] = rest;
        }
    }
    return cases;
}

std::string Outcome(const std::string& status, const std::string& out, const std::string& err)
{
    return status + '\n' + out + "---\n" + err;
}

class MigratectlTest : public KitsTest {
protected:
    MigratectlTest()
    {
        setenv("TZ", "UTC-1", 1);
        manager_->SetLoadable(5, sptr<IRemoteObject>(new ScriptedRemoteObject));
        manager_->SetListed(R"([{"id":5,"state":"running","pid":42,"user":0,"lastFailure":""},)"
                            R"({"id":6,"state":"idle","pid":null,"user":null,"lastFailure":"no room\u001b"}])");
        service_->SetHandler([this](uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) {
            const Step step = next_ < steps_.size() ? steps_[next_++] : Step{};
            const int32_t result =
                Answer(step.code, step.request, step.replies, step.result)(code, data, reply, option);
            if (code == 9 || code == 20 || code == 31) {
                data.ReadInterfaceToken();
                static_cast<void>(code == 20 && data.ReadString().empty());
                receiver_ = data.ReadRemoteObject();
                registered_ = code;
            }
            if (!step.event.empty()) {
                SendEvent(step.event);
            }
            return result;
        });
    }
    ~MigratectlTest() override { service_->Die(); }

    // Everything that a line does, as a text.
    std::string Run(const std::string& line, size_t width, const std::vector<Step>& steps, const std::string& error)
    {
        steps_ = steps;
        next_ = 0;
        for (Step& step : steps_) {
            std::replace(step.replies.begin(), step.replies.end(), ERROR, Field(error));
        }
        std::vector<std::string> words = Split(line, " ");
        std::erase(words, "");
        std::replace(words.begin(), words.end(), std::string("''"), std::string());
        static size_t columns;
        columns = width;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = migratectl::Run(words, [] { return columns; });
        EXPECT_EQ(next_, steps_.size());
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        return Outcome(std::to_string(status), out, status == 2 && !err.empty() ? "how it is wrong\n" : err);
    }

private:
    void SendEvent(const std::string& event)
    {
        MessageParcel parcel;
        WriteFields(parcel, {2U, event});
        if (registered_ == 9) {
            iface_cast<IMigrateCallBack>(receiver_)->OnMigrateProgress(parcel, parcel);
        } else if (registered_ == 20) {
            iface_cast<IReserveMigrateStatusObserver>(receiver_)->OnRestoreStatusChanged(event);
        } else {
            iface_cast<ISetBackupFileOwnInterface>(receiver_)->OnSetBackupFileOwnFinished(std::stoi(event));
        }
    }

    RecordingLogSink log_;
    const sptr<ScriptedRemoteObject> service_ = RunService();
    sptr<IRemoteObject> receiver_;
    uint32_t registered_ = 0;
    std::vector<Step> steps_;
    size_t next_ = 0;
};

TEST_F(MigratectlTest, CommandsSendPrintAndReturnWhatIsWritten)
{
    std::map<int32_t, std::string> results;
    for (auto& [line, width, steps, expected] : ReadCases(results)) {
        SCOPED_TRACE(line);
        const std::string& out = expected['1'];
        EXPECT_EQ(Run(line, width, steps, FINE),
            Outcome(expected['='], out, expected['2'] + (expected['='] == "2" ? "how it is wrong\n" : "")));
        if (steps.size() != 1 || steps[0].replies.empty() || expected['='] != "0") {
            continue;
        }
        const auto json = [reply = expected['j']](const std::string& error) {
            return "{\"result\":0,\"error\":" + error + ",\"reply\":" + reply + "}\n";
        };
        const size_t second = line.rfind("reserve ", 0) == 0 ? 8 : 0;
        const std::string prefix = "migratectl: " + line.substr(0, line.find(' ', second)) + ": ";
        EXPECT_EQ(Run("--json " + line, width, steps, FINE), Outcome("0", json(FINE), ""));
        if (steps[0].replies.back() == ERROR) {
            EXPECT_EQ(Run(line, width, steps, REFUSED), Outcome("1", out, prefix + "n? (error 3)\n  a? (error 23)\n"));
            EXPECT_EQ(Run("--json " + line, width, steps, REFUSED), Outcome("1", json(REFUSED), ""));
        }
        for (const auto& [result, words] : results) {
            steps[0].result = result;
            EXPECT_EQ(Run(line, width, steps, FINE), Outcome(result < 0 ? "4" : "1", "", prefix + words + '\n'));
            const std::string begin =
                "\n{\"result\":" + std::to_string(result < 0 ? 104 : result % 2000) + ",\"error\":" + FINE;
            EXPECT_NE(Run("--json " + line, width, steps, FINE).find(begin), std::string::npos) << begin;
        }
    }
}

}  // namespace
}  // namespace VEXA::UpdateEngine
