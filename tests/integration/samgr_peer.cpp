// SPDX-License-Identifier: Apache-2.0
//   samgr_peer serve ID [MORE...]   serves ID until it is ended
//   samgr_peer load ID              loads ID and prints its process id
//   samgr_peer exit STATUS          does not register
//   samgr_peer hang                 nor does this, and it ends with its manager
#include "samgr_peer.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

// Before the platform has opened anything of its own.
std::string Describe(int argc, char** argv)
{
    std::string text = "arguments";
    for (int index = 1; index < argc; ++index) {
        text += std::string(" ") + argv[index];
    }
    const char* variable = getenv("PEER_VARIABLE");
    text += std::string("; variable ") + (variable != nullptr ? variable : "none");
    text += std::string("; notify ") + (getenv("NOTIFY_SOCKET") != nullptr ? "set" : "none");
    text += "; directory " + std::filesystem::current_path().string();
    text += std::string("; session ") + (getsid(0) == getpid() ? "own" : "another's");
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    text += std::string("; SIGTERM ") + (sigismember(&blocked, SIGTERM) != 0 ? "blocked" : "free");
    int descriptors = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        descriptors += std::stoi(entry.path().filename()) > STDERR_FILENO ? 1 : 0;
    }
    return text + "; descriptors " + std::to_string(descriptors - 1);  // one is the iterator's
}

class PeerStub : public VEXA::IPCObjectStub {
public:
    explicit PeerStub(const std::string& description) : IPCObjectStub(u"peer"), description_(description) {}
    int32_t OnRemoteRequest(
        uint32_t code, VEXA::MessageParcel&, VEXA::MessageParcel& reply, VEXA::MessageOption&) override
    {
        switch (code) {
            case PEER_PID:
                return reply.WriteInt32(getpid()) ? 0 : 1;
            case PEER_DESCRIBE:
                return reply.WriteString(description_) ? 0 : 1;
            case PEER_ABORT:
                abort();
            default:
                return 1;
        }
    }

private:
    const std::string description_;
};

[[noreturn]] void Sleep()
{
    for (;;) {
        std::this_thread::sleep_for(std::chrono::hours(1));
    }
}

int Serve(int32_t id, const std::string& description)
{
    fprintf(stderr, "peer says hello\n");
    const auto manager = VEXA::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const VEXA::sptr<VEXA::IRemoteObject> object(new PeerStub(description));
    if (manager == nullptr || manager->AddSystemAbility(id, object) != VEXA::SAMGR_OK) {
        return 1;
    }
    Sleep();
}

int Load(int32_t id)
{
    const auto manager = VEXA::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const auto object = manager != nullptr ? manager->LoadSystemAbility(id, 5) : nullptr;
    VEXA::MessageParcel data;
    VEXA::MessageParcel reply;
    VEXA::MessageOption option;
    if (object == nullptr || object->SendRequest(PEER_PID, data, reply, option) != 0) {
        return 1;
    }
    printf("%d\n", reply.ReadInt32());
    fflush(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string description = Describe(argc, argv);
    const std::string mode = argc > 1 ? argv[1] : "";
    const int number = argc > 2 ? atoi(argv[2]) : 0;
    if (mode == "serve") {
        return Serve(number, description);
    }
    if (mode == "load") {
        return Load(number);
    }
    if (mode == "hang") {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Sleep();
    }
    return number;
}
