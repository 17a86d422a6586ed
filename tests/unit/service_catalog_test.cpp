// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/migrate_results.h"
#include "package_catalog.h"
#include "service_fixture.h"

namespace VEXA::UpdateEngine::test {
namespace {

class ServiceCatalog : public testing::Test {
protected:
    std::vector<Package> ReadAll() const
    {
        std::vector<Package> packages;
        EXPECT_TRUE(PackageCatalog(folders_.Source()).Read(packages));
        return packages;
    }
    Folders folders_;
};

TEST_F(ServiceCatalog, AManifestTellsAndADirectoryWithoutOneIsCalledAfterItself)
{
    folders_.AddPackage("b", 1,
        R"({"bundleName":"com.b","versionName":"1.2","versionCode":"7","user":3,"targetUser":100,"target":"other",
            "modules":[{"type":1,"id":"m"},{"type":2,"id":"n"}],"reserved":true,"isRestoreData":false,"more":[1]})");
    folders_.AddPackage("a", 1);
    Folders::Write(folders_.Source() / "stray", "no package");
    fs::create_directory_symlink("a", folders_.Source() / "link");
    const auto packages = ReadAll();
    ASSERT_EQ(packages.size(), 2U);
    EXPECT_EQ(packages[0].manifest.bundleName, "a");
    EXPECT_EQ(packages[0].manifest.target, "a");
    EXPECT_EQ(packages[0].manifest.targetUser, 0);
    EXPECT_FALSE(packages[0].manifest.reserved);
    const PackageManifest& b = packages[1].manifest;
    EXPECT_EQ(b.bundleName + b.versionName + b.versionCode + b.target, "com.b1.27other");
    EXPECT_EQ(b.user, 3);
    EXPECT_EQ(b.targetUser, 100);
    ASSERT_EQ(b.modules.size(), 2U);
    EXPECT_EQ(b.modules[1].id, "n");
    EXPECT_EQ(packages[1].AsRestoreApp().scanSourceDir, "b");
    EXPECT_FALSE(packages[1].AsRestoreApp().isRestoreData);
    EXPECT_EQ(packages[1].fault.code, 0);
    std::vector<Package> none;
    EXPECT_FALSE(PackageCatalog(folders_.Root() / "absent").Read(none));
}

TEST_F(ServiceCatalog, BadManifestsAndNamesAreFaults)
{
    struct Case {
        const char* manifest;
        int32_t code;
    };
    const std::string large = "{\"bundleName\":\"" + std::string(1100000, 'x') + "\"}";
    const std::vector<Case> cases{{"{", MIGRATE_ERROR_MANIFEST}, {R"({"user":"root"})", MIGRATE_ERROR_MANIFEST},
        {large.c_str(), MIGRATE_ERROR_MANIFEST}, {R"({"target":"../out"})", MIGRATE_ERROR_NAME},
        {R"({"target":".."})", MIGRATE_ERROR_NAME}, {R"({"target":"/etc"})", MIGRATE_ERROR_NAME},
        {R"({"target":"a/b"})", MIGRATE_ERROR_NAME}, {R"({"target":".staging-1"})", MIGRATE_ERROR_NAME},
        {R"({"target":".migrate-state.db"})", MIGRATE_ERROR_NAME}, {R"({"target":"..fine"})", 0}};
    for (const Case& bad : cases) {
        folders_.AddPackage("p", 1, bad.manifest);
        const auto packages = ReadAll();
        ASSERT_EQ(packages.size(), 1U);
        EXPECT_EQ(packages[0].fault.code, bad.code) << std::string(bad.manifest).substr(0, 60);
    }
    // A manifest that leads elsewhere is not read.
    fs::remove(folders_.Source() / "p" / "manifest.json");
    Folders::Write(folders_.Root() / "secret", "{}");
    fs::create_symlink("../../secret", folders_.Source() / "p" / "manifest.json");
    EXPECT_EQ(ReadAll()[0].fault.code, MIGRATE_ERROR_MANIFEST);
}

TEST_F(ServiceCatalog, OfTwoPackagesForOnePlaceTheSecondIsAFaultAndDirectoriesAreFoundBeforeBundles)
{
    folders_.AddPackage("a", 1, R"({"bundleName":"c"})");
    folders_.AddPackage("b", 1, R"({"target":"a"})");
    folders_.AddPackage("c", 1);
    const auto packages = ReadAll();
    ASSERT_EQ(packages.size(), 3U);
    EXPECT_EQ(packages[0].fault.code, 0);
    EXPECT_EQ(packages[1].fault.code, MIGRATE_ERROR_TARGET);
    EXPECT_EQ(PackageCatalog::Find(packages, "c"), &packages[2]);
    EXPECT_EQ(PackageCatalog::Find({packages[0]}, "c")->directory, "a");
    EXPECT_EQ(PackageCatalog::Find(packages, "d"), nullptr);
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
