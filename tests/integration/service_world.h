// SPDX-License-Identifier: Apache-2.0
// The reference service behind a manager, with packages to move.
#pragma once

#include <map>

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

// Packages p10, p11, ... of `bytes` each in three files, one of them deeper.
inline void MakePackages(const SamgrWorld& world, int count, size_t bytes, const std::string& manifest)
{
    for (int index = 10; index < 10 + count; ++index) {
        const std::string name = "p" + std::to_string(index);
        const std::string folder = SourceDir(world) + "/" + name;
        std::filesystem::create_directories(folder + "/data/deep");
        std::ofstream(folder + "/manifest.json") << manifest;
        for (const char* file : {"/first", "/data/second", "/data/deep/third"}) {
            std::string content;
            for (int line = 0; content.size() < bytes / 3; ++line) {
                content += name + file + std::to_string(line) + "\n";
            }
            std::ofstream(folder + file) << content;
        }
    }
}

inline void AddServiceProfile(const SamgrWorld& world, int bytesPerSecond)
{
    std::filesystem::create_directory(TargetDir(world));
    world.AddProfile(UpdateEngine::MIGRATE_SERVICE_ID, MIGRATE_SERVICED,
        R"(, "startTimeout": 20, "arguments": ["--source", ")" + SourceDir(world) + R"(", "--target", ")" +
            TargetDir(world) + R"(", "--state", ")" + world.Folder() + R"(/state", "--throttle", ")" +
            std::to_string(bytesPerSecond) + "\"]");
}

// Path below the folder -> content, of everything that is a file.
inline std::map<std::string, std::string> FilesOf(const std::string& folder)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            files[entry.path().string().substr(folder.size())] = FileText(entry.path().string());
        }
    }
    return files;
}

inline bool TargetEqualsSource()
{
    const auto source = FilesOf(SourceDir(ClientWorld::Get()));
    return !source.empty() && source == FilesOf(TargetDir(ClientWorld::Get()));
}

// Ends the service at once and returns when the manager runs the next instance, whose process it returns; -1 when none
// comes.
inline pid_t KillService()
{
    const pid_t killed = PidOfProgram(ClientWorld::Get(), "migrate_serviced");
    pid_t next = -1;
    if (killed > 0 && kill(killed, SIGKILL) == 0) {
        Eventually([&] {
            next = PidOfProgram(ClientWorld::Get(), "migrate_serviced");
            return next > 0 && next != killed;
        });
    }
    return next != killed ? next : -1;
}

}  // namespace VEXA::test
