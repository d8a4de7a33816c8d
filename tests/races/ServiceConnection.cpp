// The status service's connection used by many threads at once, for helgrind: several threads emit while other processes
// (this program again, as "read" and "listen") read properties and listen, and the service is stopped under an emitter.
// Needs a user bus; there is no system bus. Status 0 when every read was answered and every announcement was heard.

#include "dbus/Handles.h"
#include "dbus/SDBusManager.h"

#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char kName[] = "com.kelvora.vorlan";
constexpr char kPath[] = "/com/kelvora/vorlan";
constexpr int kReads = 200;
constexpr int kEmits = 100;
constexpr int kReaders = 2;
constexpr int kEmitters = 3;
constexpr std::uint64_t kPatienceUs = 60'000'000;

int onOrientation(sd_bus_message*, void* userData, sd_bus_error*)
{
    ++*static_cast<int*>(userData);
    return 0;
}

/// Waits for the service, says so on standard output, and then reads or listens. Status 0 when nothing was missed.
int client(bool listens)
{
    BusPtr bus;
    if (adopt(bus, [](sd_bus** out) { return sd_bus_open_user(out); }) < 0)
        return 2;
    const auto answers = [&bus] {
        std::uint8_t status = 0;
        return sd_bus_get_property_trivial(bus.get(), kName, kPath, kName, "StatusQV", nullptr, 'y', &status) >= 0;
    };
    int heard = 0;
    sd_bus_match_signal(bus.get(), nullptr, nullptr, kPath, kName, "OrientationChanged", onOrientation, &heard);
    while (!answers())
        usleep(10'000);
    std::puts("ready");
    std::fflush(stdout);
    int answered = 0;
    for (int i = 0; i < kReads && !listens; ++i)
        answered += answers() ? 1 : 0;
    while (listens && heard < kEmitters * kEmits) {
        const int processed = sd_bus_process(bus.get(), nullptr);
        if (processed < 0 || (processed == 0 && sd_bus_wait(bus.get(), kPatienceUs) <= 0))
            break;
    }
    return listens ? heard != kEmitters * kEmits : answered != kReads;
}

/// This program again; its standard output goes to `out`.
pid_t spawnClient(const char* program, const char* what, int out)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    const std::string name = program;
    const std::string role = what;
    char* argv[] = {const_cast<char*>(name.c_str()), const_cast<char*>(role.c_str()), nullptr};
    pid_t pid = -1;
    posix_spawn(&pid, program, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1)
        return client(std::string(argv[1]) == "listen");

    int ready[2];
    if (pipe(ready) != 0)
        return 2;
    std::vector<pid_t> clients = {spawnClient(argv[0], "listen", ready[1])};
    for (int i = 0; i < kReaders; ++i)
        clients.push_back(spawnClient(argv[0], "read", ready[1]));
    close(ready[1]);

    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    SDBusManager service;
    service.start();
    std::size_t lines = 0;
    for (char byte = 0; lines < clients.size() && read(ready[0], &byte, 1) == 1;)
        lines += byte == '\n' ? 1 : 0;

    std::vector<std::thread> emitters;
    emitters.reserve(kEmitters);
    for (int i = 0; i < kEmitters; ++i) {
        emitters.emplace_back([&service] {
            for (int n = 0; n < kEmits; ++n) {
                service.emitQVStatus();
                service.emitOrientationChanged();
            }
        });
    }
    for (std::thread& emitter : emitters)
        emitter.join();
    int missed = lines == clients.size() ? 0 : 1;
    for (const pid_t pid : clients) {
        int status = 0;
        waitpid(pid, &status, 0);
        missed += status == 0 ? 0 : 1;
    }

    std::thread late([&service] {
        for (int n = 0; n < kEmits; ++n)
            service.emitQVStatus();
    });
    service.stop();
    late.join();
    std::printf("%d of %zu clients missed something\n", missed, clients.size());
    return missed == 0 ? 0 : 1;
}
