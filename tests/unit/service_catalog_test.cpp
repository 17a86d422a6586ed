// SPDX-License-Identifier: Apache-2.0
#include "package_catalog.h"
#include "service_fixture.h"

namespace VEXA::UpdateEngine::test {
namespace {

class ServiceCatalog : public testing::Test {
protected:
    std::vector<PackageRef> ReadAll() const
    {
        std::vector<PackageRef> packages;
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
    folders_.AddPackage("com.b", 1, R"({"target":"a"})");
    Folders::Write(folders_.Source() / "stray", "no package");
    fs::create_directory_symlink("a", folders_.Source() / "link");
    folders_.AddPackages("lost+found .staging-1 .migrate-state.x", 1);
    const auto packages = ReadAll();
    ASSERT_EQ(packages.size(), 3U);
    const PackageManifest& a = packages[0]->manifest;
    EXPECT_EQ(std::tuple(a.bundleName, a.target, a.targetUser, a.reserved), std::tuple("a", "a", 0, false));
    const PackageManifest& b = packages[1]->manifest;
    EXPECT_EQ(b.bundleName + packages[1]->app.versionName + packages[1]->app.versionCode + b.target, "com.b1.27other");
    EXPECT_EQ(std::tuple(b.user, b.targetUser, b.modules.at(1).id), std::tuple(3, 100, "n"));
    EXPECT_FALSE(packages[1]->app.isRestoreData || packages[1]->fault.code != 0);
    EXPECT_EQ(packages[2]->fault.code, MIGRATE_ERROR_TARGET);  // the place of "a"
    std::vector<KnownPackage> known(2);
    known[0].package = packages[1];
    known[1].package = packages[2];
    EXPECT_EQ(EngineState::Find(known, "com.b"), &known[1]);  // directories before bundles
    EXPECT_EQ(EngineState::Find(known, "d"), nullptr);
    std::vector<PackageRef> none;
    EXPECT_FALSE(PackageCatalog(folders_.Root() / "absent").Read(none));
}

TEST_F(ServiceCatalog, BadManifestsAndNamesAreFaults)
{
    const auto faultOf = [this](const std::string& manifest) {
        folders_.AddPackage("p", 1, manifest);
        return ReadAll().at(0)->fault.code;
    };
    const std::string large = "{}" + std::string(1048576 - 1, ' ');
    std::string modules = R"({"type":1,"id":"m"})";
    for (int i = 1; i < 1024; ++i) {
        modules += R"(,{"type":1,"id":"m"})";
    }
    const std::string most = R"({"modules":[)" + modules;
    EXPECT_EQ(faultOf(most + "]}"), 0);
    for (const std::string& manifest :
        {std::string("{"), std::string(R"({"user":"root"})"), large, most + R"(,{"type":1,"id":"m"}]})"}) {
        EXPECT_EQ(faultOf(manifest), MIGRATE_ERROR_MANIFEST) << manifest.substr(0, 60);
    }
    const std::string longest(1024, 'n');
    for (const std::string begin : {R"({"bundleName":")", R"({"restoreScene":")", R"({"modules":[{"type":1,"id":")"}) {
        const std::string end = begin.find('[') == begin.npos ? "\"}" : "\"}]}";
        EXPECT_EQ(faultOf(begin + longest + end), 0) << begin;
        EXPECT_EQ(faultOf(begin + longest + "n" + end), MIGRATE_ERROR_MANIFEST) << begin;
    }
    for (const std::string name : {"../out", "..", "/etc", "a/b", ".staging-1", ".migrate-state.db"}) {
        EXPECT_EQ(faultOf("{\"target\":\"" + name + "\"}"), MIGRATE_ERROR_NAME) << name;
    }
    EXPECT_EQ(faultOf(R"({"target":"..fine"})"), 0);
    EXPECT_EQ(faultOf(large.substr(0, 1048576)), 0);
    // A manifest that leads elsewhere is not read.
    fs::remove(folders_.Source() / "p" / "manifest.json");
    Folders::Write(folders_.Root() / "secret", "{}");
    fs::create_symlink("../../secret", folders_.Source() / "p" / "manifest.json");
    EXPECT_EQ(ReadAll()[0]->fault.code, MIGRATE_ERROR_MANIFEST);
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
