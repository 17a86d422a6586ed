// SPDX-License-Identifier: Apache-2.0
#include "daemon/profile.h"

#include <cjson/cJSON.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <set>
#include <thread>

#include "daemon/user.h"
#include "samgr_log.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::samgr {

namespace {

using JsonRoot = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// Reads the fields of one profile; the first fault is kept.
class ProfileReader {
public:
    ProfileReader(const cJSON* root, std::string& error) : root_(root), error_(error) {}

    bool Read(Profile& profile)
    {
        CheckKeys();
        ReadId(profile.id);
        ReadText("program", profile.program, true);
        ReadText("user", profile.user, false);
        ReadText("directory", profile.directory, false);
        ReadArguments(profile.arguments);
        ReadEnvironment(profile.environment);
        ReadStartTimeout(profile.startTimeout);
        ReadOwnUser(profile);
        ReadAccess("register", profile.registrars);
        ReadAccess("lookup", profile.lookup);
        return error_.empty();
    }

private:
    const cJSON* Item(const char* key) const { return cJSON_GetObjectItemCaseSensitive(root_, key); }

    void Fault(const std::string& text)
    {
        if (error_.empty()) {
            error_ = text;
        }
    }

    // Has `take` read each child of a list or object, if the key is there; false is a fault.
    template <typename Take>
    void ReadChildren(const char* key, cJSON_bool (*isRightKind)(const cJSON*), const char* kind, const Take& take)
    {
        const cJSON* parent = Item(key);
        bool isRight = parent == nullptr || isRightKind(parent) != 0;
        for (const cJSON* item = parent != nullptr ? parent->child : nullptr; isRight && item != nullptr;
             item = item->next) {
            isRight = take(item);
        }
        if (!isRight) {
            Fault("\"" + std::string(key) + "\" must be " + kind);
        }
    }

    void CheckKeys()
    {
        static const std::set<std::string> known = {
            "id", "program", "arguments", "user", "directory", "environment", "startTimeout", "register", "lookup"};
        for (const cJSON* item = root_->child; item != nullptr; item = item->next) {
            if (!known.contains(item->string)) {
                Fault("unknown key \"" + std::string(item->string) + "\"");
            }
        }
    }

    void ReadId(int32_t& id)
    {
        const cJSON* item = Item("id");
        const double value = cJSON_IsNumber(item) ? item->valuedouble : 0;
        if (!(value >= 1 && value <= INT32_MAX) || value != std::floor(value)) {
            Fault("\"id\" must be a whole number from 1 to 2147483647");
            return;
        }
        id = static_cast<int32_t>(value);
    }

    void ReadText(const char* key, std::string& value, bool required)
    {
        const cJSON* item = Item(key);
        if (cJSON_IsString(item) && item->valuestring[0] != '\0') {
            value = item->valuestring;
        } else if (item != nullptr || required) {
            Fault("\"" + std::string(key) + "\" must be a text that is not empty");
        }
    }

    void ReadArguments(std::vector<std::string>& arguments)
    {
        ReadChildren("arguments", &cJSON_IsArray, "a list of texts", [&arguments](const cJSON* item) {
            arguments.emplace_back(cJSON_IsString(item) ? item->valuestring : "");
            return cJSON_IsString(item) != 0;
        });
    }

    void ReadEnvironment(std::map<std::string, std::string>& environment)
    {
        const auto take = [&environment](const cJSON* item) {
            const std::string name = item->string;
            environment[name] = cJSON_IsString(item) ? item->valuestring : "";
            return cJSON_IsString(item) && !name.empty() && name.find('=') == std::string::npos;
        };
        ReadChildren("environment", &cJSON_IsObject, "an object of texts, its keys names of variables", take);
    }

    void ReadStartTimeout(std::chrono::milliseconds& timeout)
    {
        const cJSON* item = Item("startTimeout");
        if (item == nullptr) {
            return;
        }
        using Milliseconds = std::chrono::duration<double, std::milli>;
        const Milliseconds value(cJSON_IsNumber(item) ? item->valuedouble * 1000 : 0);
        if (!(value >= std::chrono::milliseconds(1) && value <= kMaxStartTimeout)) {
            Fault("\"startTimeout\" must be a number of seconds up to " + std::to_string(kMaxStartTimeout.count()));
            return;
        }
        timeout = std::chrono::duration_cast<std::chrono::milliseconds>(value);
    }

    // A service that registers again with the next manager is not that one's child: it must be allowed as a user.
    void ReadOwnUser(Profile& profile)
    {
        profile.uid = geteuid();
        if (!profile.user.empty() && !FindUid(profile.user, profile.uid)) {
            Fault("user \"" + profile.user + "\" is not known");
        }
        if (Item("register") == nullptr) {
            profile.registrars.uids = {geteuid(), profile.uid};
        }
        profile.lookup.uids = {0, geteuid(), profile.uid};
    }

    void ReadAccess(const char* key, AccessList& list)
    {
        ReadChildren(key, &cJSON_IsArray, "a list of users, \"%groups\" and \"*\"", [key, &list](const cJSON* item) {
            const double number = cJSON_IsNumber(item) ? item->valuedouble : -1;
            if (number >= 0 && number < UINT32_MAX && number == std::floor(number)) {
                list.uids.push_back(static_cast<uid_t>(number));
                return true;
            }
            return cJSON_IsString(item) && ReadName(key, item->valuestring, list);
        });
    }

    // A name that is not known, maybe not yet, is nobody: the profile serves the others.
    static bool ReadName(const char* key, const std::string& name, AccessList& list)
    {
        uint32_t number = 0;
        if (name == "*") {
            list.everyone = true;
        } else if (name.starts_with('%') && FindGid(name.substr(1), number)) {
            list.gids.push_back(number);
        } else if (!name.starts_with('%') && FindUid(name, number)) {
            list.uids.push_back(number);
        } else {
            SAMGR_LOGW("\"%{public}s\" of a profile: \"%{public}s\" is not known, and is nobody", key, name.c_str());
        }
        return true;
    }

    const cJSON* root_;
    std::string& error_;
};

bool IsShortage(int reason)
{
    return reason == EMFILE || reason == ENFILE || reason == ENOMEM;
}

bool ReadText(const std::filesystem::path& path, std::string& text, std::string& error)
{
    UniqueFd file;
    // A service must not be missing because descriptors or memory were short just then.
    for (int tries = 0; !file && (tries == 0 || IsShortage(errno)) && tries < kMostTries; ++tries) {
        std::this_thread::sleep_for(tries * kRetryPause);
        // Not to hang on a pipe that bears a profile's name.
        file = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    }
    struct stat status = {};
    if (fstat(file.Get(), &status) != 0) {
        error = "can't be opened";
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "is not a file";
        return false;
    }
    std::array<char, 4096> chunk;
    ssize_t count = 0;
    while ((count = read(file.Get(), chunk.data(), chunk.size())) > 0) {
        text.append(chunk.data(), static_cast<size_t>(count));
        if (text.size() > kMaxProfileBytes) {
            error = "is larger than " + std::to_string(kMaxProfileBytes) + " bytes";
            return false;
        }
    }
    if (count < 0) {
        error = "can't be read";
    }
    return count == 0;
}

std::vector<std::filesystem::path> ProfileFiles(const std::string& directory)
{
    std::vector<std::filesystem::path> files;
    // The C++ library's iterator ends the process where memory is short.
    const auto close = [](DIR* open) { closedir(open); };
    const std::unique_ptr<DIR, decltype(close)> folder(opendir(directory.c_str()), close);
    if (folder == nullptr) {
        ThrowWithoutMemory(errno);
        SAMGR_LOGE("profiles of %{public}s can't be read: %{public}s", directory.c_str(), std::strerror(errno));
    }
    while (const dirent* const entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        const auto path = std::filesystem::path(directory) / entry->d_name;
        if (path.extension() == ".json") {
            files.push_back(path);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

ProfilePtr ReadProfile(const std::filesystem::path& path)
{
    std::string text;
    std::string error;
    const auto profile = std::make_shared<Profile>();
    if (ReadText(path, text, error) && ParseProfile(text, *profile, error)) {
        return profile;
    }
    SAMGR_LOGE("profile %{public}s is left out: %{public}s", path.c_str(), error.c_str());
    return nullptr;
}

}  // namespace

bool AccessList::Allows(const Caller& caller) const
{
    const bool isNamed = caller.uid != static_cast<uid_t>(-1) && std::ranges::find(uids, caller.uid) != uids.end();
    return everyone || isNamed || (caller.isInGroup != nullptr && std::ranges::any_of(gids, caller.isInGroup));
}

bool ParseProfile(const std::string& text, Profile& profile, std::string& error)
{
    profile = Profile();
    error.clear();
    const size_t nul = text.find('\0');
    const char* end = text.c_str() + std::min(nul, text.size());
    errno = 0;
    const JsonRoot root(
        nul != text.npos ? nullptr : cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, &end, 1), &cJSON_Delete);
    ThrowWithoutMemory(root == nullptr ? errno : 0);  // the text may be a sound one
    if (!cJSON_IsObject(root.get())) {
        const auto line = std::to_string(1 + std::count(text.c_str(), end, '\n'));
        error = root == nullptr ? "line " + line + " is not JSON" : "is not one JSON object";
        return false;
    }
    return ProfileReader(root.get(), error).Read(profile);
}

std::vector<ProfilePtr> ReadProfiles(const std::vector<std::string>& directories)
{
    std::vector<ProfilePtr> profiles;
    std::set<int32_t> ids;
    for (const std::string& directory : directories) {
        for (const auto& file : ProfileFiles(directory)) {
            ProfilePtr profile = ReadProfile(file);
            if (profile == nullptr) {
                continue;
            }
            if (!ids.insert(profile->id).second) {
                SAMGR_LOGE("profile %{public}s is left out: another one names service %{public}d already", file.c_str(),
                    profile->id);
                continue;
            }
            profiles.push_back(std::move(profile));
        }
    }
    return profiles;
}

bool ExpandVariables(const std::string& text, const VariableLookup& lookup, std::string& result, std::string& error)
{
    result.clear();
    size_t position = 0;
    while (position < text.size()) {
        const size_t dollar = std::min(text.find('$', position), text.size());
        result.append(text, position, dollar - position);
        position = dollar;
        if (text.compare(dollar, 2, "$$") == 0) {
            result += '$';
            position += 2;
        } else if (text.compare(dollar, 2, "${") == 0) {
            const size_t end = text.find('}', dollar);
            if (end == std::string::npos) {
                error = "the brace after a dollar sign of its profile is not closed";
                return false;
            }
            const std::string name = text.substr(dollar + 2, end - dollar - 2);
            const char* value = lookup(name);
            if (value == nullptr) {
                error = "variable " + name + " of its profile is not set";
                return false;
            }
            result += value;
            position = end + 1;
        } else if (dollar < text.size()) {
            result += '$';
            position += 1;
        }
    }
    return true;
}

}  // namespace VEXA::samgr
