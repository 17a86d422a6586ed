// SPDX-License-Identifier: Apache-2.0
// The reference service behind a manager, with packages to move.
#pragma once

#include "client_world.h"

namespace VEXA::test {

inline std::string SourceDir(const SamgrWorld& world)
{
    return world.Folder() + "/source";
}
inline std::string TargetDir(const SamgrWorld& world)
{
    return world.Folder() + "/target";
}

// Packages p10, p11, ... of `bytes` each in two files, one of them deeper.
inline void MakePackages(const SamgrWorld& world, int count, size_t bytes, const std::string& manifest)
{
    for (int index = 10; index < 10 + count; ++index) {
        const std::string name = "p" + std::to_string(index);
        const std::string folder = SourceDir(world) + "/" + name;
        std::filesystem::create_directories(folder + "/data/deep");
        std::ofstream(folder + "/manifest.json") << manifest;
        for (const char* file : {"/first", "/data/deep/second"}) {
            std::ofstream stream(folder + file);
            while (stream.tellp() < static_cast<std::streamoff>(bytes / 2)) {
                stream << name << file << stream.tellp() << "\n";
            }
        }
    }
}

inline void AddServiceProfile(const SamgrWorld& world, int bytesPerSecond)
{
    std::filesystem::create_directory(TargetDir(world));
    world.AddProfile(UpdateEngine::MIGRATE_SERVICE_ID, MIGRATE_SERVICED,
        R"(, "startTimeout": 20, "arguments": ["--source", ")" + SourceDir(world) + R"(", "--target", ")" +
            TargetDir(world) + R"(", "--state", ")" + world.Folder() + R"(/state", "--no-sync", "--throttle", ")" +
            std::to_string(bytesPerSecond) + "\"]");
}

inline bool TargetEqualsSource()
{
    const std::string command =
        "diff -r '" + SourceDir(ClientWorld::Get()) + "' '" + TargetDir(ClientWorld::Get()) + "'";
    return std::system(command.c_str()) == 0;
}

// Ends the service at once and returns when the manager runs the next instance, whose process it returns; -1 when none
// comes.
inline pid_t KillService()
{
    const pid_t killed = PidOfProgram(ClientWorld::Get(), "migrate_serviced");
    pid_t next = -1;
    const auto isReplaced = [&] {
        next = PidOfProgram(ClientWorld::Get(), "migrate_serviced");
        return next > 0 && next != killed;
    };
    return killed > 0 && kill(killed, SIGKILL) == 0 && Eventually(isReplaced) ? next : -1;
}

}  // namespace VEXA::test
