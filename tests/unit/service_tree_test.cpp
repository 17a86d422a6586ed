// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>

#include <map>

#include "service_fixture.h"
#include "tree_copier.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine::test {
namespace {

class ServiceTree : public testing::Test {
protected:
    ErrorInfo Copy(const std::string& name, const CopyControl& control = {[](uint64_t) { return true; }, 64 * 1024})
    {
        return CopyTree(source_.Get(), name, target_.Get(), "copy", control, copied_);
    }
    bool Remove(bool goOn = true) const
    {
        return RemoveTree(target_.Get(), "copy", [goOn] { return goOn; });
    }
    // What is to be kept of every entry.
    using Entries = std::map<std::string, std::tuple<mode_t, time_t, long, std::string, std::string>>;
    static Entries Describe(const fs::path& root)
    {
        Entries entries;
        const auto add = [&](const fs::path& path) {
            struct stat status = {};
            EXPECT_EQ(lstat(path.c_str(), &status), 0);
            entries[path.lexically_relative(root)] = {status.st_mode, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                S_ISLNK(status.st_mode) ? fs::read_symlink(path).string() : "",
                S_ISREG(status.st_mode) ? FileText(path) : ""};
        };
        add(root);
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            add(entry.path());
        }
        return entries;
    }
    static void SetTime(const fs::path& path, time_t seconds, long nanoseconds)
    {
        const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    Folders folders_;
    const UniqueFd source_{open(folders_.Source().c_str(), O_RDONLY | O_DIRECTORY)};
    const UniqueFd target_{open(folders_.Target().c_str(), O_RDONLY | O_DIRECTORY)};
    TreeSize copied_;
};

TEST_F(ServiceTree, EverythingOfATreeArrivesAndCanBeRemoved)
{
    const fs::path root = folders_.Source() / "p";
    Folders::Write(root / "data" / "large", std::string(700001, 'l'));
    Folders::Write(root / "data" / "empty", "");
    Folders::Write(root / "line\nfeed \xff\xfe\"", "odd");
    Folders::Write(root / "-rf", "dash");
    Folders::Write(root / "locked" / "in", "no write permission on its directory");
    fs::create_directories(root / "void" / "deep");
    fs::create_symlink("data/large", root / "link");
    fs::create_symlink("/nowhere/at all", root / "dangling");
    fs::create_directory_symlink("..", root / "up");
    ASSERT_EQ(chmod((root / "data" / "large").c_str(), 04750), 0);
    ASSERT_EQ(chmod((root / "data" / "empty").c_str(), 0400), 0);
    SetTime(root / "data" / "large", 1500000000, 123456789);
    SetTime(root / "link", 1400000000, 987654321);
    SetTime(root / "void", 1000000000, 1);
    ASSERT_EQ(chmod((root / "locked").c_str(), 0555), 0);
    SetTime(root, 1100000000, 5);

    const ErrorInfo fault = Copy("p");
    ASSERT_EQ(fault.code, 0) << fault.reason;
    EXPECT_EQ(copied_.files, 8U);
    EXPECT_EQ(Describe(folders_.Target() / "copy"), Describe(root));

    EXPECT_FALSE(Remove(false));
    EXPECT_EQ(Describe(folders_.Target() / "copy").size(), Describe(root).size());
    EXPECT_TRUE(Remove());
    EXPECT_FALSE(fs::exists(folders_.Target() / "copy"));
    EXPECT_TRUE(fs::exists(root / "data" / "large"));  // the removal went through no link
    EXPECT_TRUE(Remove());
}

TEST_F(ServiceTree, WhatCanNotBeCopiedIsNamed)
{
    folders_.AddUnsupported("pipe");
    std::string levels;
    for (int i = 0; i < 200; ++i) {
        levels += "/d";
    }
    fs::create_directories(folders_.Source().string() + "/fits" + levels);
    fs::create_directories(folders_.Source().string() + "/deep" + levels + "/d");
    fs::create_directories(folders_.Source() / "taken");
    folders_.AddPackage("grows", 100000);
    fs::create_directory_symlink("/etc", folders_.Source() / "link");
    const auto expectFault = [this](const char* name, int32_t code, const char* reason) {
        const std::string file = folders_.Source() / "grows" / "data" / "file";
        const auto append = [&](uint64_t bytes) { return bytes == 0 || std::ofstream(file, std::ios::app) << "more"; };
        const ErrorInfo fault = Copy(name, {append, 64 * 1024});
        EXPECT_EQ(std::pair(fault.code, fault.canRetry), std::pair(code, code == MIGRATE_ERROR_CHANGED)) << name;
        EXPECT_NE(fault.reason.find(reason), std::string::npos) << fault.reason;
        EXPECT_TRUE(Remove()) << name;
    };
    expectFault("grows", MIGRATE_ERROR_CHANGED, "");
    expectFault("pipe", MIGRATE_ERROR_UNSUPPORTED, "pipe: is no file");
    expectFault("fits", 0, "");
    expectFault("deep", MIGRATE_ERROR_UNSUPPORTED, "nested too deeply");
    expectFault("absent", MIGRATE_ERROR_UNREADABLE, "No such");
    expectFault("link", MIGRATE_ERROR_UNREADABLE, "");
    fs::create_directories(folders_.Target() / "copy");
    expectFault("taken", MIGRATE_ERROR_WRITE, "exists");
}

TEST_F(ServiceTree, ATreeThatHoldsTheTargetIsNeitherMeasuredNorCopied)
{
    folders_.AddPackage("p", 10);
    const UniqueFd within(open((folders_.Source() / "p" / "data").c_str(), O_RDONLY | O_DIRECTORY));
    TreeSize size;
    const auto goOn = [](auto...) { return true; };
    for (const ErrorInfo& fault : {MeasureTree(source_.Get(), "p", within.Get(), goOn, size),
             CopyTree(source_.Get(), "p", within.Get(), "copy", {goOn}, size)}) {
        EXPECT_EQ(fault.code, MIGRATE_ERROR_UNSUPPORTED);
        EXPECT_EQ(fault.reason, "data: holds the target");
    }
}

// Who copies another user's program must not make a program that acts as himself.
TEST_F(ServiceTree, NobodyActsAsTheCopiersUserThroughACopy)
{
    const fs::path program = folders_.Source() / "p" / "program";
    Folders::Write(program, "#!");
    ASSERT_EQ(chmod(program.c_str(), 06755), 0);
    constexpr uid_t kOther = 12345;
    if (chown(folders_.Target().c_str(), kOther, kOther) != 0 || setegid(kOther) != 0) {
        GTEST_SKIP() << "needs to be two users";
    }
    ASSERT_EQ(seteuid(kOther), 0);
    const ErrorInfo fault = Copy("p");
    ASSERT_EQ(seteuid(0) | setegid(0), 0);
    EXPECT_EQ(fault.code, 0) << fault.reason;
    struct stat status = {};
    ASSERT_EQ(stat((folders_.Target() / "copy" / "program").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kOther);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
