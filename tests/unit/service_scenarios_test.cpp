// SPDX-License-Identifier: Apache-2.0
// The service, asked as clients ask it: tests/data/service.txt says what is there, what is asked, and what comes of it.
#include <sys/xattr.h>

#include "database.h"
#include "service_requests_fixture.h"

namespace {

std::atomic<time_t> g_now;

}  // namespace

// In place of the C library's: a second later at every look.
extern "C" time_t time(time_t*) noexcept
{
    return g_now++;
}

// In place of the C library's: the target keeps no attributes.
extern "C" int setxattr(const char*, const char*, const void*, size_t, int) noexcept
{
    errno = EOPNOTSUPP;
    return -1;
}

namespace VEXA::UpdateEngine::test {
namespace {

struct Scenario {
    std::string title;
    std::vector<std::pair<char, std::string>> steps = {};

    friend void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.title; }
};

// "a<3*bc>" stands for "abcbcbc".
std::string Expand(const std::string& text)
{
    const size_t begin = text.find('<');
    const size_t end = text.find('>', begin);
    if (end == std::string::npos) {
        return text;
    }
    const size_t star = text.find('*', begin);
    std::string expanded = text.substr(0, begin);
    for (int count = std::stoi(text.substr(begin + 1)); count > 0; --count) {
        expanded += text.substr(star + 1, end - star - 1);
    }
    return expanded + Expand(text.substr(end + 1));
}

std::vector<Scenario> ReadScenarios()
{
    std::vector<Scenario> scenarios;
    std::ifstream file(NM_TEST_DATA_DIR "/service.txt");
    for (std::string line; std::getline(file, line);) {
        const std::string rest = line.size() > 2 ? line.substr(2) : "";
        if (!line.empty() && line[0] == '=') {
            scenarios.push_back({rest});
        } else if (!line.empty() && line[0] != '#') {
            scenarios.back().steps.emplace_back(line[0], Expand(rest));
        }
    }
    return scenarios;
}

// Takes off the front of the text what stands before the separator.
std::string TakeWord(std::string& text, char separator = ' ')
{
    const std::string word = text.substr(0, text.find(separator));
    text.erase(0, word.size() + 1);
    return word;
}

const std::map<std::string, std::atomic<int>*> FAULTS{
    {"state", &g_isStateFull}, {"rename", &g_failingRename}, {"room", &g_freeBlocks}, {"births", &g_later}};

class ServiceScenarios : public RequestsTest, public testing::WithParamInterface<Scenario> {
protected:
    EngineListener& Listener() override { return listener; }

    bool Arrange(char kind, std::string rest)
    {
        const fs::path file = folders.Root() / rest.substr(0, rest.find(' '));
        std::string more = rest.substr(std::min(rest.size(), rest.find(' ') + 1));
        std::string error;
        bool isDamaged = false;
        switch (kind) {
            case '+':
                rest = TakeWord(more);
                return folders.AddPackage(file.filename(), std::stoul(rest), more), true;
            case 'p':
                return folders.AddUnsupported(rest), true;
            case 'w':
                return Folders::Write(file, more), true;
            case 'k':
                return fs::create_directory_symlink(more, file), true;
            case 'a':
                return lsetxattr(file.c_str(), "user.x", "", 0, 0) == 0;
            case 'n':
                return fs::create_hard_link(file, folders.Root() / more), true;
            case 'u':
                return lchown(file.c_str(), 12345, 12345) == 0;
            case 'x':
                return fs::remove_all(file), true;
            case 'm':
                return fs::rename(file, folders.Root() / more), true;
            case 'z':
                return fs::resize_file(file, std::stoul(more)), true;
            case 'd':
                g_disk = [reason = std::stoi(rest)] { return reason; };
                return true;
            case 'f':
                return *FAULTS.at(TakeWord(rest)) = std::stoi(more), true;
            case 'r':
                stateFile = rest.ends_with(".db") ? file : "";
                Run(rest == "slow" ? kSlow : 0, rest != "idle", rest == "sync");
                return true;
            case 's':
                stub = nullptr;
                engine.reset();
                return Database::Open(folders.Target() / ".migrate-state.db", error, isDamaged)->Execute(rest.c_str());
            default:
                return false;
        }
    }
    bool Check(char kind, const std::string& rest)
    {
        const size_t blank = rest.find(' ');
        const std::string names = rest.empty() ? "" : rest + (kind == 'l' ? "; " : " ");
        const auto heard = [this] { return listener.Heard().substr(heard_); };
        std::string error;
        MigrateStage stage;
        MigrateProgress progress;
        switch (kind) {
            case '>':
                request_ = rest;
                break;
            case '<':
                EXPECT_EQ(Answer(), rest);
                break;
            case '~':
                EXPECT_TRUE(Eventually([&] { return Answer() == rest; })) << Answer();
                break;
            case 'e':
                stub = nullptr;
                engine.reset();
                stateFile = rest.find(".db") == rest.npos ? "" : folders.Root() / rest.substr(0, rest.find(".db") + 3);
                EXPECT_EQ(
                    MigrationEngine::Open({folders.Source(), folders.Target(), stateFile}, listener, error), nullptr);
                EXPECT_EQ(error, folders.Root() / rest);
                break;
            case 'o':
                EXPECT_EQ(std::to_string(engine->OwnBackups(static_cast<uint32_t>(std::stoul(rest)))),
                    rest.substr(blank + 1));
                break;
            case 'i':
                engine->GetProgress(stage, progress);
                engine->IntroduceTasks([&](const auto& tasks) {
                    EXPECT_EQ(std::to_string(static_cast<int>(stage)) + " " + ToJson(tasks), rest);
                });
                break;
            case 'c':
                EXPECT_EQ(FileText(folders.Root() / rest.substr(0, blank)), rest.substr(blank + 1));
                break;
            case 't':
                EXPECT_TRUE(Eventually([&] { return Target() == names; })) << Target();
                break;
            case 'h':
                EXPECT_TRUE(Eventually([&] { return heard() == names; })) << heard();
                heard_ = listener.Heard().size();
                break;
            case 'l':
                EXPECT_TRUE(Eventually([&] { return Lines() == names; })) << Lines();
                log.Clear();
                break;
            default:
                return false;
        }
        return true;
    }

    // The names in the target, with * behind those that have a mark, and names of which only a mark is there, with "?".
    std::string Target() const
    {
        std::string text = " " + folders.TargetNames();
        std::error_code none;
        for (const auto& mark : fs::directory_iterator(folders.Target() / ".migrate-state.placed", none)) {
            std::string name = fs::read_symlink(mark, none);
            name = TakeWord(name, '/');
            struct stat status = {};
            const size_t at = text.find(" " + name + " ");
            const bool isThere = at != text.npos && lstat((folders.Target() / name).c_str(), &status) == 0 &&
                                 mark.path().filename().string().starts_with(std::to_string(status.st_ino) + "-");
            text.insert(isThere ? at + name.size() + 1 : text.size(), isThere ? "*" : name + "? ");
        }
        return text.substr(1);
    }
    // What the service tells that the next one must tell too.
    std::string Everything()
    {
        std::string text;
        for (const char* request : {"GetMigrateResult", "GetMigrateInfo|u:0", "GetMigrationUsers", "GetPakMigrateInfo",
                 "GetRestoreAppStatus||"}) {
            request_ = request;
            text += Answer() + "\n";
        }
        return text;
    }

    // The results and texts that the service answers the request with. An error is E, its number, message and data.
    std::string Answer()
    {
        std::string rest = request_;
        const std::string name = TakeWord(rest, '|');
        const auto row = std::ranges::find(MigrateServerStub::Rows(), name, &RequestRow::name);
        MessageParcel data;
        data.WriteInterfaceToken(token);
        for (auto left = std::ranges::count(request_, '|'); left > 0; --left) {
            PutOne(data, TakeWord(rest, '|'));
        }
        std::string text;
        const int32_t result = Send(row->code, data);
        text = result != 0 ? std::to_string(result - MIGRATE_RESULT_OFFSET) : number >= 0 ? std::to_string(number) : "";
        for (const std::string& reply : replies) {
            BusinessError error;
            text += text.empty() ? "" : " ";
            if (reply.rfind("{\"message\":", 0) != 0) {
                text += reply;
                continue;
            }
            JsonParse::JsonStrToStruct(reply, error);
            text += error.errorNum == 0 ? "E" : "E" + std::to_string(error.errorNum) + " " + error.message;
            for (const auto& one : error.data) {
                text += "; " + std::to_string(one.errorCode) + " " + one.errorMessage;
            }
        }
        return text;
    }
    static void PutOne(MessageParcel& data, const std::string& field)
    {
        const char kind = field.size() > 1 && field[1] == ':' ? field[0] : 's';
        const std::string value = kind == 's' ? field : field.substr(2);
        const VEXA::test::PutField put{data};
        if (kind == 'u') {
            put(static_cast<uint32_t>(std::stoul(value)));
        } else if (kind == 'i') {
            put(std::stoi(value));
        } else if (kind == 'b') {
            put(value == "1");
        } else if (kind == 'w') {
            std::string rest = value;
            AAFwk::Want want;
            want.SetAction(TakeWord(rest));
            put(rest.empty() ? want : want.SetParam("reason", std::stoi(rest)));
        } else {
            put(value);
        }
    }

    std::string request_;
    size_t heard_ = 0;
};

TEST_P(ServiceScenarios, GoAsWritten)
{
    g_now = 1000;
    for (const auto& [kind, rest] : GetParam().steps) {
        if (kind == 'u' && geteuid() != 0) {
            GTEST_SKIP() << "needs to be root";
        }
        SCOPED_TRACE(std::string(1, kind) + " " + rest);
        ASSERT_TRUE((Arrange(kind, rest) || Check(kind, rest)) && !HasFailure());
    }
    const std::string told = engine != nullptr && fs::exists(folders.Source()) ? Everything() : "";
    if (!told.empty() && told.find("\"status\":1") == std::string::npos) {
        g_isStateFull = 0;
        const int32_t owned = engine->OwnBackups(1);
        Run(0, false);
        EXPECT_EQ(Everything(), told);
        EXPECT_EQ(engine->OwnBackups(2), owned == 0 ? MIGRATE_ERROR_OWNER : owned);
    }
}

INSTANTIATE_TEST_SUITE_P(All, ServiceScenarios, testing::ValuesIn(ReadScenarios()));

}  // namespace
}  // namespace VEXA::UpdateEngine::test
