// SPDX-License-Identifier: Apache-2.0
#include <endian.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <map>

#include "access_list.h"
#include "service_fixture.h"
#include "tree_copier.h"
#include "vexa/base/unique_fd.h"

namespace {

// The call that fails, and its errno.
std::string g_failing;
int g_reason = 0;
thread_local std::map<std::string, int> g_calls;

long Unless(const char* name, long number, auto... arguments)
{
    errno = g_reason;
    g_calls[name]++;
    return g_failing == name ? -1 : syscall(number, arguments...);
}

}  // namespace

// In place of the C library's.
#define FAILING(Result, name, number, parameters, ...)                  \
    extern "C" Result name parameters                                   \
    {                                                                   \
        return static_cast<Result>(Unless(#name, number, __VA_ARGS__)); \
    }
FAILING(int, fchmod, SYS_fchmod, (int fd, mode_t mode) noexcept, fd, mode)
FAILING(int, fchownat, SYS_fchownat, (int fd, const char* name, uid_t user, gid_t group, int flags) noexcept, fd, name,
    user, group, flags)
FAILING(int, setxattr, SYS_setxattr,
    (const char* file, const char* name, const void* value, size_t size, int flags) noexcept, file, name, value, size,
    flags)
FAILING(ssize_t, getxattr, SYS_getxattr, (const char* file, const char* name, void* value, size_t size) noexcept, file,
    name, value, size)
FAILING(ssize_t, listxattr, SYS_listxattr, (const char* file, char* names, size_t size) noexcept, file, names, size)
FAILING(int, ftruncate, SYS_ftruncate, (int fd, off_t size) noexcept, fd, size)
FAILING(int, utimensat, SYS_utimensat, (int fd, const char* name, const timespec* times, int flags) noexcept, fd, name,
    times, flags)
FAILING(int, mkdirat, SYS_mkdirat, (int fd, const char* name, mode_t mode) noexcept, fd, name, mode)
FAILING(ssize_t, readlinkat, SYS_readlinkat, (int fd, const char* name, char* text, size_t size) noexcept, fd, name,
    text, size)
FAILING(int, symlinkat, SYS_symlinkat, (const char* text, int fd, const char* name) noexcept, text, fd, name)
FAILING(ssize_t, pread, SYS_pread64, (int fd, void* data, size_t size, off_t at), fd, data, size, at)
// A disk that takes no more than a few thousand bytes at once.
FAILING(ssize_t, pwrite, SYS_pwrite64, (int fd, const void* data, size_t size, off_t at), fd, data,
    std::min<size_t>(size, 5000), at)

extern "C" ssize_t copy_file_range(int from, off64_t* at, int to, off64_t* toAt, size_t size, unsigned flags)
{
    const bool isOff = g_failing == "pread" || g_failing == "pwrite";
    return Unless(isOff ? g_failing.c_str() : "copy_file_range", SYS_copy_file_range, from, at, to, toAt, size, flags);
}

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
    // The properties of every entry that a copy keeps.
    using Entries = std::map<std::string, std::tuple<mode_t, time_t, long, std::string, std::string>>;
    static Entries Describe(const fs::path& root)
    {
        Entries entries;
        const auto add = [&](const fs::path& path) {
            struct stat status = {};
            EXPECT_EQ(lstat(path.c_str(), &status), 0);
            entries[path.lexically_relative(root)] = {status.st_mode, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                S_ISLNK(status.st_mode) ? fs::read_symlink(path).string() : "",
                (S_ISREG(status.st_mode) ? FileText(path) : "") + Attributes(path)};
        };
        add(root);
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            add(entry.path());
        }
        return entries;
    }
    static std::string Attributes(const fs::path& path)
    {
        std::string text;
        char value[256];
        for (const char* name : {kAccess, kDefault, "user.x", "trusted.x"}) {
            const ssize_t length = lgetxattr(path.c_str(), name, value, sizeof(value));
            text += length >= 0 ? name + std::string(value, static_cast<size_t>(length)) : "";
        }
        return text;
    }
    static constexpr char kAccess[] = "system.posix_acl_access";
    static constexpr char kDefault[] = "system.posix_acl_default";
    // rwx for the owner, and for user 5, the owning group, the mask and all others what is given.
    static std::string List(uint16_t user, uint16_t group, uint16_t mask, uint16_t other)
    {
        const std::tuple<uint16_t, uint16_t, uint32_t> entries[] = {
            {1, 7, ~0U}, {2, user, 5}, {4, group, ~0U}, {16, mask, ~0U}, {32, other, ~0U}};
        std::string list("\2\0\0\0", 4);
        for (const auto& [tag, access, id] : entries) {
            const uint16_t words[] = {htole16(tag), htole16(access)};
            const uint32_t number = htole32(id);
            list.append(reinterpret_cast<const char*>(words), 4).append(reinterpret_cast<const char*>(&number), 4);
        }
        return list;
    }
    static void SetTime(const fs::path& path, time_t seconds, long nanoseconds)
    {
        const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    Folders folders_;
    const UniqueFd source_{open(folders_.Source().c_str(), O_RDONLY | O_DIRECTORY)};
    const UniqueFd target_{open(folders_.Target().c_str(), O_RDONLY | O_DIRECTORY)};
    CopiedTree copied_;
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

    for (const std::string failing : {"copy_file_range", ""}) {
        g_failing = failing;
        g_reason = EXDEV;
        g_calls.clear();
        const ErrorInfo fault = Copy("p");
        ASSERT_EQ(fault.code, 0) << fault.reason;
        EXPECT_TRUE(failing.empty() ? g_calls["pread"] == 0 : g_calls["copy_file_range"] == 1);
        EXPECT_TRUE(copied_.size.files == 8 && copied_.size.bytes == 700044) << copied_.size.bytes;
        EXPECT_EQ(Describe(folders_.Target() / "copy"), Describe(root));
        EXPECT_TRUE(!failing.empty() ? Remove() : true);
    }
    TreeSize size;
    const auto goOn = [] { return true; };
    EXPECT_EQ(MeasureTree(source_.Get(), "p", target_.Get(), goOn, size).code, 0);
    EXPECT_TRUE(size.files == 8 && size.bytes == 700044) << size.bytes;

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
    folders_.AddPackage("grows", 10);
    fs::create_directory_symlink("/etc", folders_.Source() / "link");
    int changes = 0;  // that are still to come, one with each copy of that file
    const auto expectFault = [&](const char* name, int32_t code, const char* reason) {
        const std::string file = folders_.Source() / "grows" / "data" / "file";
        const auto append = [&](uint64_t bytes) {
            return bytes == 0 || changes-- <= 0 || std::ofstream(file, std::ios::app) << "more";
        };
        const ErrorInfo fault = Copy(name, {append, 64 * 1024});
        EXPECT_EQ(std::pair(fault.code, fault.canRetry), std::pair(code, code == MIGRATE_ERROR_CHANGED)) << name;
        EXPECT_NE(fault.reason.find(reason), std::string::npos) << fault.reason;
        EXPECT_TRUE(Remove()) << name;
    };
    changes = 2;
    expectFault("grows", 0, "");
    changes = 3;
    expectFault("grows", MIGRATE_ERROR_CHANGED, "data/file: changed while it was copied");
    EXPECT_TRUE(WriteFault(EDQUOT).canRetry);
    expectFault("pipe", MIGRATE_ERROR_UNSUPPORTED, "pipe: is no file");
    expectFault("fits", 0, "");
    EXPECT_TRUE(Copy("fits", {[](uint64_t) { return false; }}).code == MIGRATE_ERROR_STOPPED && Remove());
    expectFault("deep", MIGRATE_ERROR_UNSUPPORTED, "nested too deeply");
    expectFault("absent", MIGRATE_ERROR_UNREADABLE, "No such");
    expectFault("link", MIGRATE_ERROR_UNREADABLE, "");
    fs::create_directories(folders_.Target() / "copy");
    expectFault("taken", MIGRATE_ERROR_WRITE, "exists");

    const fs::path root = folders_.Source() / "p";
    Folders::Write(root / "file", "text");
    fs::resize_file(root / "file", 1 << 20);
    fs::create_directories(folders_.Source() / "l");
    fs::create_symlink("file", folders_.Source() / "l" / "link");
    EXPECT_EQ(setxattr((root / "file").c_str(), "user.x", "", 0, 0), 0);
    const std::tuple<const char*, int, int32_t, const char*> faults[] = {
        {"getxattr", EIO, MIGRATE_ERROR_UNREADABLE, "file: "}, {"getxattr", ENODATA, 0, ""},
        {"listxattr", EIO, MIGRATE_ERROR_UNREADABLE, "link: "}, {"listxattr", EOPNOTSUPP, 0, ""},
        {"setxattr", EIO, MIGRATE_ERROR_WRITE, "file: "}, {"setxattr", ENOSPC, 0, ""},
        {"setxattr", EDQUOT, MIGRATE_ERROR_NO_SPACE, "file: "}, {"fchownat", EPERM, MIGRATE_ERROR_WRITE, "file: "},
        {"fchownat", EPERM, MIGRATE_ERROR_WRITE, "link: "}, {"fchmod", EPERM, MIGRATE_ERROR_WRITE, "file: "},
        {"utimensat", EPERM, MIGRATE_ERROR_WRITE, "link: "}, {"symlinkat", ENOSPC, MIGRATE_ERROR_NO_SPACE, "link: "},
        {"readlinkat", EIO, MIGRATE_ERROR_UNREADABLE, "link: "}, {"mkdirat", EROFS, MIGRATE_ERROR_WRITE, ""},
        {"ftruncate", EIO, MIGRATE_ERROR_WRITE, "file: "}, {"pread", EIO, MIGRATE_ERROR_UNREADABLE, "file: "},
        {"pwrite", ENOSPC, MIGRATE_ERROR_NO_SPACE, "file: "}};
    for (const auto& [call, reason, code, place] : faults) {
        g_failing = call;
        g_reason = reason;
        const ErrorInfo fault = Copy(place[0] == 'l' ? "l" : "p");
        g_failing = "";
        EXPECT_EQ(std::pair(fault.code, fault.reason),
            std::pair(code, code == 0 ? "" : place + std::string(strerror(reason))))
            << call;
        EXPECT_TRUE(Remove()) << call;
    }
    // Somebody else's file in the copy.
    const ErrorInfo fault = Copy("p", {[this](uint64_t) {
        std::ofstream(folders_.Target() / "copy" / "file");
        return true;
    }});
    EXPECT_EQ(std::pair(fault.code, fault.reason), std::pair(MIGRATE_ERROR_WRITE, std::string("file: File exists")));
}

// Whatever changes at whichever moment, the copy is what is there in the end.
TEST_F(ServiceTree, WhatChangesMeanwhileIsCopiedAgain)
{
    const fs::path root = folders_.Source() / "p";
    const std::pair<const char*, std::function<void()>> changes[] = {
        {"grows", [&] { Folders::Write(root / "d" / "1", "longer than before"); }},
        {"has its time set back",
            [&] {
                Folders::Write(root / "d" / "1", "ONE");
                SetTime(root / "d" / "1", 1500000000, 1);
            }},
        {"has another mode", [&] { fs::permissions(root / "d" / "1", fs::perms::owner_read); }},
        {"is added", [&] { Folders::Write(root / "d" / "new", "new"); }},
        {"is added with its directory", [&] { Folders::Write(root / "d" / "e" / "new", "new"); }},
        {"vanishes", [&] { fs::remove(root / "d" / "2"); }},
        {"vanishes with its directory", [&] { fs::remove_all(root / "d"); }},
        {"becomes a directory", [&] { fs::remove(root / "d" / "2"), Folders::Write(root / "d" / "2" / "in", "in"); }},
        {"becomes a file", [&] { fs::remove_all(root / "d"), Folders::Write(root / "d", "file"); }},
        {"leads elsewhere", [&] { fs::remove(root / "link"), fs::create_symlink("elsewhere", root / "link"); }}};
    for (const auto& [what, change] : changes) {
        for (int moment = 1; moment <= 12; ++moment) {  // all calls of the first look
            fs::remove_all(root);
            Folders::Write(root / "d" / "1", "one");
            SetTime(root / "d" / "1", 1500000000, 1);
            Folders::Write(root / "d" / "2", "two");
            Folders::Write(root / "other", "other");
            fs::create_symlink("d", root / "link");
            int calls = 0;
            const ErrorInfo fault =
                Copy("p", {[&, change = change](uint64_t) { return ++calls != moment || (change(), true); }, 2});
            EXPECT_EQ(fault.code, 0) << what << " " << fault.reason;
            EXPECT_EQ(Describe(folders_.Target() / "copy"), Describe(root)) << what << " at call " << moment;
            EXPECT_TRUE(Remove());
        }
    }
}

TEST_F(ServiceTree, AttributesAndHolesAreKeptAndAccessIsNeverWider)
{
    const fs::path root = folders_.Source() / "p";
    Folders::Write(root / "d" / "file", "text");
    const std::string list = List(6, 0, 7, 0);
    const auto set = [](const fs::path& path, const char* name, const std::string& value) {
        return lsetxattr(path.c_str(), name, value.data(), value.size(), 0) == 0;
    };
    // A default list of the target is no part of the original.
    if (!set(root / "d" / "file", kAccess, list) || !set(folders_.Target(), kDefault, List(7, 7, 7, 7))) {
        GTEST_SKIP() << "no access control lists here";
    }
    EXPECT_TRUE(
        set(root / "d", kDefault, list) && set(root / "d" / "file", "user.x", "value") && set(root, "user.x", ""));
    fs::create_symlink("file", root / "link");
    EXPECT_TRUE(set(root / "d", "trusted.x", "root's") == set(root / "link", "trusted.x", "a link's"));
    std::ofstream(root / "sparse") << "begin";
    fs::resize_file(root / "sparse", 1 << 28);
    std::ofstream(root / "sparse", std::ios::app) << "end";
    EXPECT_EQ(Copy("p").code, 0);
    EXPECT_EQ(copied_.lost, "");
    fs::resize_file(root / "sparse", 0);  // compared by size and blocks only
    struct stat status = {};
    const fs::path sparse = folders_.Target() / "copy" / "sparse";
    EXPECT_EQ(stat(sparse.c_str(), &status), 0);
    EXPECT_TRUE(status.st_size == (1 << 28) + 3 && status.st_blocks < 1000) << status.st_blocks;
    const UniqueFd end(open(sparse.c_str(), O_RDONLY));
    char text[4] = {};
    EXPECT_TRUE(pread(end.Get(), text, 3, 1 << 28) == 3 && text == std::string("end")) << text;
    fs::remove(sparse);
    fs::remove(root / "sparse");
    SetTime(root, 1, 1);
    SetTime(folders_.Target() / "copy", 1, 1);
    EXPECT_EQ(Describe(folders_.Target() / "copy"), Describe(root));
    EXPECT_TRUE(Remove());

    g_failing = "setxattr";
    g_reason = EOPNOTSUPP;
    EXPECT_EQ(Copy("p").code, 0);
    g_failing = "";
    EXPECT_EQ(copied_.lost, "the target can't keep its access control lists and extended attributes");
    EXPECT_EQ(stat((folders_.Target() / "copy" / "d" / "file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
    // The permissions of a copy without the list, and of one whose group is another.
    EXPECT_EQ(PermissionsWithout(0675, List(7, 7, 6, 5)), 0664U);
    EXPECT_EQ(PermissionsWithout(0675, List(0, 7, 7, 5)), 0600U);
    EXPECT_EQ(PermissionsOfOtherGroup(0674), 0644U);
}

TEST_F(ServiceTree, ATreeThatHoldsTheTargetIsNeitherMeasuredNorCopied)
{
    folders_.AddPackage("p", 10);
    const UniqueFd within(open((folders_.Source() / "p" / "data").c_str(), O_RDONLY | O_DIRECTORY));
    TreeSize size;
    const auto goOn = [](auto...) { return true; };
    for (const ErrorInfo& fault : {MeasureTree(source_.Get(), "p", within.Get(), goOn, size),
             CopyTree(source_.Get(), "p", within.Get(), "copy", {goOn}, copied_)}) {
        EXPECT_EQ(fault.code, MIGRATE_ERROR_UNSUPPORTED);
        EXPECT_EQ(fault.reason, "data: holds the target");
    }
}

// A user who copies another user's program must not make a program that acts as himself.
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
    EXPECT_EQ(std::pair(status.st_uid, status.st_mode & 07777), std::pair(kOther, 0755U));
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
