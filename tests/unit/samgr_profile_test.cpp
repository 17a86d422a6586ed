// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "daemon/output_lines.h"
#include "daemon/profile.h"
#include "support/processes.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::samgr {
namespace {

using namespace std::chrono_literals;

TEST(SamgrProfile, NumbersAndUsersAreReadAndHaveDefaults)
{
    Profile profile;
    std::string error;
    ASSERT_TRUE(ParseProfile(R"({"id": 65792, "program": "p", "user": "5", "startTimeout": 0.25,
        "register": ["root", 12], "lookup": [7, "8", "nobody here", "%nor here", "%daemon", "%9"]})",
        profile, error))
        << error;
    EXPECT_EQ(std::tuple(profile.id, profile.user, profile.startTimeout), std::tuple(65792, "5", 250ms));
    EXPECT_EQ(profile.registrars.uids, (std::vector<uid_t>{0, 12}));
    EXPECT_EQ(profile.lookup.uids, (std::vector<uid_t>{0, geteuid(), 5, 7, 8}));
    EXPECT_EQ(profile.lookup.gids, (std::vector<gid_t>{1, 9}));
    EXPECT_FALSE(profile.lookup.everyone);

    ASSERT_TRUE(
        ParseProfile(R"({"id": 2147483647, "program": "p", "startTimeout": 300, "user": "12"})", profile, error));
    EXPECT_EQ(profile.startTimeout, 300s);
    EXPECT_EQ(profile.registrars.uids, (std::vector<uid_t>{geteuid(), 12}));
    ASSERT_TRUE(ParseProfile(R"({"id": 1, "program": "p"})", profile, error)) << error;
    EXPECT_EQ(profile.startTimeout, 5s);
    EXPECT_EQ(profile.registrars.uids, std::vector<uid_t>(2, geteuid()));
    EXPECT_EQ(profile.lookup.uids, (std::vector<uid_t>{0, geteuid(), geteuid()}));
    ASSERT_TRUE(ParseProfile(R"({"id": 1, "program": "p", "lookup": ["*"]})", profile, error)) << error;
    EXPECT_TRUE(profile.lookup.everyone);
}

TEST(SamgrProfile, FaultsAreNamed)
{
    const std::string sound = R"({"id": 1, "program": "p"})";
    std::vector<std::pair<std::string, std::string>> cases{{"[" + sound + "]", "one JSON object"},
        {sound + "\n\nx", "line 3 is"}, {"\n" + sound + '\0', "line 2 is"}, {R"({"program": "p"})", "id"},
        {R"({"id": 1})", "program"}, {R"({"id": 1, "user": 7})", "program"}};
    // The first member of a name counts, and each fault names it.
    for (const std::string member :
        {R"("id": 0)", R"("id": 1.5)", R"("id": 2147483648)", R"("program": "")", R"("arguements": [])",
            R"("arguments": [1])", R"("arguments": {})", R"("environment": {"A=B": "c"})", R"("environment": ["a"])",
            R"("startTimeout": 0)", R"("startTimeout": 300.1)", R"("user": "12x")", R"("user": "4294967295")",
            R"("register": [4294967295])", R"("register": [-1])", R"("lookup": [["root"]])", R"("lookup": "root")"}) {
        cases.emplace_back("{" + member + ", " + sound.substr(1), member.substr(1, member.find('"', 1) - 1));
    }
    Profile profile;
    std::string error;
    for (const auto& [text, fault] : cases) {
        EXPECT_FALSE(ParseProfile(text, profile, error)) << text;
        EXPECT_NE(error.find(fault), std::string::npos) << text << ": " << error;
    }
}

TEST(SamgrProfile, DirectoriesAreReadInOrderAndTheFirstOfAnIdentifierWins)
{
    const test::TempDir made;
    const std::string& folder = made.Path();
    const auto write = [&](const char* name, const std::string& text) { std::ofstream(folder + "/" + name) << text; };
    write("b.json", R"({"id": 1, "program": "second"})");
    write("a.json", R"({"id": 1, "program": "first"})");
    const std::string large = R"({"id": 2, "program": "large"})";
    write("c.json", large + std::string(65536 - large.size() + 1, ' '));
    write("c2.json", large + std::string(65536 - large.size(), '\n'));
    write("d.json", "not a profile");
    write("e.txt", R"({"id": 3, "program": "other"})");
    std::filesystem::create_directory(folder + "/f.json");
    EXPECT_EQ(mkfifo((folder + "/g.json").c_str(), 0600), 0);
    RecordingLogSink log;
    const auto profiles = ReadProfiles({folder + "/absent", folder});
    const std::pair<const char*, const char*> leftOut[] = {{"b.json", "another one names service 1 already"},
        {"c.json", "is larger than 65536 bytes"}, {"d.json", "line 1 is not JSON"}, {"f.json", "is not a file"},
        {"g.json", "is not a file"}};
    std::vector lines{
        RecordedMessage{KOLOG_ERROR, "", "profiles of " + folder + "/absent can't be read: No such file or directory"}};
    for (const auto& [name, reason] : leftOut) {
        lines.push_back({KOLOG_ERROR, "", "profile " + folder + "/" + name + " is left out: " + reason});
    }
    EXPECT_EQ(log.Messages(), lines);
    ASSERT_EQ(profiles.size(), 2U);
    EXPECT_EQ(profiles[0]->program + profiles[1]->program, "firstlarge");
}

TEST(SamgrOutput, LinesAreBoundedAndCanNotForgeOthers)
{
    std::vector<std::string> lines;
    OutputLines output([&lines](const std::string& line) { lines.push_back(line); });
    const std::string text = "one\n\ntw\x1b[31mo\r\x7f\t\n" + std::string(1001, 'x') + "\nla";
    output.Take(text.data(), text.size());
    output.Take("st", 2);
    output.Flush();
    EXPECT_EQ(lines, (std::vector<std::string>{"one", "tw?[31mo??\t", std::string(1000, 'x'), "x", "last"}));
}

}  // namespace
}  // namespace VEXA::samgr
