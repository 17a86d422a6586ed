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
    EXPECT_EQ(faultOf(large.substr(0, 1048576)), 0);
    // A manifest that leads elsewhere is not read.
    fs::remove(folders_.Source() / "p" / "manifest.json");
    Folders::Write(folders_.Root() / "secret", "{}");
    fs::create_symlink("../../secret", folders_.Source() / "p" / "manifest.json");
    EXPECT_EQ(ReadAll()[0]->fault.code, MIGRATE_ERROR_MANIFEST);
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
