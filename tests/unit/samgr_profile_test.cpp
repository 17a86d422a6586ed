// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "daemon/output_lines.h"
#include "daemon/profile.h"
#include "support/processes.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::samgr {
namespace {

// The profile that is read from a text, or its fault.
std::string Read(const std::string& text)
{
    static Profile profile;  // nothing is left of the one before
    static std::string error;
    const RecordingLogSink log;
    if (!ParseProfile(text, profile, error)) {
        return "! " + error;
    }
    std::ostringstream shown;
    shown << "= " << profile.id << " \"" << profile.user << "\" " << profile.startTimeout.count();
    for (const auto& [name, list] : {std::pair(" register:", profile.registrars), {" lookup:", profile.lookup}}) {
        shown << name << (list.everyone ? " *" : "");
        std::ranges::for_each(list.uids, [&](uid_t user) { shown << ' ' << user; });
        std::ranges::for_each(list.gids, [&](gid_t group) { shown << " %" << group; });
    }
    std::ranges::for_each(log.Messages(), [&](const RecordedMessage& line) { shown << "; " << line.text; });
    return shown.str();
}

TEST(SamgrProfile, IsReadOrItsFaultIsNamed)
{
    std::ifstream file(NM_TEST_DATA_DIR "/profiles.txt");
    ASSERT_TRUE(file);
    for (std::string text, expected; std::getline(file, text);) {
        if (text.empty() || text[0] == '#') {
            continue;
        }
        std::getline(file, expected);
        for (size_t user = 0; (user = expected.find('@')) != std::string::npos;) {
            expected.replace(user, 1, std::to_string(geteuid()));
        }
        EXPECT_EQ(Read(text), expected) << text;
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
    write("d.json", large + "\n\nx");
    write("d2.json", "\n" + large + '\0');
    write("e.txt", R"({"id": 3, "program": "other"})");
    std::filesystem::create_directory(folder + "/f.json");
    EXPECT_EQ(mkfifo((folder + "/g.json").c_str(), 0600), 0);
    std::filesystem::create_symlink("/no/such", folder + "/h.json");
    std::filesystem::create_symlink("/proc/self/mem", folder + "/i.json");
    RecordingLogSink log;
    const auto profiles = ReadProfiles({folder + "/absent", folder});
    const std::pair<const char*, const char*> leftOut[] = {{"b.json", "another one names service 1 already"},
        {"c.json", "is larger than 65536 bytes"}, {"d.json", "line 3 is not JSON"}, {"d2.json", "line 2 is not JSON"},
        {"f.json", "is not a file"}, {"g.json", "is not a file"}, {"h.json", "can't be opened"},
        {"i.json", "can't be read"}};
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
