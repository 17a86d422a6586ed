// SPDX-License-Identifier: Apache-2.0
#include "daemon/daemon.h"

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "daemon/manager_stub.h"
#include "daemon/program_runner.h"
#include "daemon/service_table.h"
#include "descriptor_limit.h"
#include "samgr_limits.h"
#include "samgr_log.h"
#include "signals.h"
#include "vexa/base/unique_fd.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::samgr {

namespace {

using std::chrono::steady_clock;

uint64_t Microseconds(steady_clock::time_point time)
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}

// Every process of a runtime directory leaves its traces there: one that lists only itself and its parent has had no
// manager.
steady_clock::time_point StartsFrom()
{
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(RuntimeDirectory().c_str()), &closedir);
    int entries = 0;
    while (directory != nullptr && entries < 3 && readdir(directory.get()) != nullptr) {
        ++entries;
    }
    return entries < 3 ? steady_clock::time_point::min() : steady_clock::now() + kReturnTime;
}

class Daemon {
public:
    explicit Daemon(const std::vector<std::string>& profileDirectories) : profileDirectories_(profileDirectories) {}
    ~Daemon()
    {
        sd_event_source_disable_unref(timer_);
        sd_event_unref(loop_);
    }

    int Run()
    {
        if (const int result = MakeLoop(); result < 0) {
            fprintf(stderr, "samgrd: the event loop can't be set up: %s\n", strerror(-result));
            return EXIT_CANT_SERVE;
        }
        MakeTable();
        // The programs of this manager live on, and register with the manager that has replaced it.
        const auto onReplaced = [] { _exit(ExplainOther()); };
        const PublishResult published = PublishContextObject(sptr<IRemoteObject>(new ManagerStub(table_)), onReplaced);
        if (published != PublishResult::DONE) {
            return published == PublishResult::TAKEN ? ExplainOther() : EXIT_CANT_SERVE;
        }
        SAMGR_LOGI("the manager serves %{public}s", RuntimeDirectory().c_str());
        sd_notify(0, "READY=1");
        const int result = sd_event_loop(loop_);
        if (result < 0) {
            // Events of the loop may be lost by then, so the manager can't go on.
            fprintf(stderr, "samgrd: the event loop has failed: %s\n", strerror(-result));
            return EXIT_CANT_SERVE;
        }
        return EXIT_STOPPED;
    }

private:
    // Returns a negative error number when the system refuses something.
    int MakeLoop()
    {
        int result = wake_->Get() < 0 ? -errno : sd_event_new(&loop_);
        const auto add = [&result](auto call, auto... arguments) { result = result < 0 ? result : call(arguments...); };
        add(&sd_event_add_time, loop_, &timer_, CLOCK_MONOTONIC, UINT64_MAX, uint64_t{1000}, &Daemon::OnTimer, this);
        add(&sd_event_add_io, loop_, nullptr, wake_->Get(), EPOLLIN, &Daemon::OnWake, this);
        for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
            add(&sd_event_add_signal, loop_, nullptr, number, &Daemon::OnSignal, this);
        }
        return result;
    }

    void MakeTable()
    {
        runner_ = std::make_unique<ProgramRunner>(loop_);
        const auto wakeLoop = [wake = wake_] { eventfd_write(wake->Get(), 1); };
        table_ = sptr<ServiceTable>(new ServiceTable({runner_.get(), &steady_clock::now, wakeLoop, StartsFrom()}));
        runner_->OnEnd([this](pid_t pid, const ProgramEnd& end) {
            table_->OnProgramEnd(pid, end);
            EndLoopWhenStopped();
        });
        table_->SetProfiles(ReadProfiles(profileDirectories_));
    }

    static int ExplainOther()
    {
        fprintf(stderr, "samgrd: another manager serves %s\n", RuntimeDirectory().c_str());
        return EXIT_MANAGER_EXISTS;
    }

    void RunDue()
    {
        const auto next = table_->RunDue();
        const bool never = next == steady_clock::time_point::max();
        sd_event_source_set_time(timer_, never ? UINT64_MAX : Microseconds(next));
        sd_event_source_set_enabled(timer_, SD_EVENT_ONESHOT);
    }

    void Stop()
    {
        if (stopping_) {
            return;
        }
        stopping_ = true;
        sd_notify(0, "STOPPING=1");
        SAMGR_LOGI("the manager stops");
        table_->Stop();
        runner_->SignalAll(SIGTERM);
        AddStopTimer(kStopTime, [](auto*, uint64_t, void* data) {
            static_cast<Daemon*>(data)->runner_->SignalAll(SIGKILL);
            return 0;
        });
        AddStopTimer(kStopTime + kKillTime,
            [](auto*, uint64_t, void* data) { return sd_event_exit(static_cast<Daemon*>(data)->loop_, 0); });
        EndLoopWhenStopped();
    }

    void AddStopTimer(std::chrono::milliseconds after, sd_event_time_handler_t handler)
    {
        sd_event_add_time(
            loop_, nullptr, CLOCK_MONOTONIC, Microseconds(steady_clock::now() + after), 1000, handler, this);
    }

    // The check is deferred, because the runner still lists the program whose end it is reporting.
    void EndLoopWhenStopped()
    {
        if (stopping_) {
            sd_event_add_defer(loop_, nullptr, &Daemon::OnReaped, this);
        }
    }

    static int OnReaped(sd_event_source*, void* data)
    {
        auto* daemon = static_cast<Daemon*>(data);
        return daemon->runner_->Empty() ? sd_event_exit(daemon->loop_, 0) : 0;
    }
    static int OnTimer(sd_event_source*, uint64_t, void* data)
    {
        static_cast<Daemon*>(data)->RunDue();
        return 0;
    }
    static int OnWake(sd_event_source*, int fd, uint32_t, void* data)
    {
        eventfd_t count = 0;
        eventfd_read(fd, &count);
        static_cast<Daemon*>(data)->RunDue();
        return 0;
    }
    static int OnSignal(sd_event_source*, const signalfd_siginfo* info, void* data)
    {
        auto* daemon = static_cast<Daemon*>(data);
        if (info->ssi_signo == SIGHUP) {
            daemon->table_->SetProfiles(ReadProfiles(daemon->profileDirectories_));
            SAMGR_LOGI("the profiles have been read again");
        } else {
            daemon->Stop();
        }
        return 0;
    }

    const std::vector<std::string> profileDirectories_;
    // Shared with the table, which requests on IPC threads may use until the process is gone.
    const std::shared_ptr<UniqueFd> wake_ = std::make_shared<UniqueFd>(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    sd_event* loop_ = nullptr;
    sd_event_source* timer_ = nullptr;
    std::unique_ptr<ProgramRunner> runner_;
    sptr<ServiceTable> table_;
    bool stopping_ = false;
};

// Blocked in every thread to come: the event loop takes them. A full or closed log must not end the manager.
void SetSignals()
{
    const sigset_t set = SignalSet({SIGTERM, SIGINT, SIGHUP, SIGCHLD});
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int RunDaemon(const std::vector<std::string>& profileDirectories)
{
    SetSignals();
    RaiseDescriptorLimit(RLIM_INFINITY);
    return Daemon(profileDirectories).Run();
}

}  // namespace VEXA::samgr
