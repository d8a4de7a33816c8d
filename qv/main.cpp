#include "qv/Peer.h"
#include "qv/Port.h"

#include <cstdio>
#include <cstdlib>

/// vorlan-qv DEV BAUD: gets in step with the daemon.
int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fputs("usage: vorlan-qv DEV BAUD\n", stderr);
        return 2;
    }
    try {
        auto port = qv::Port::open(argv[1], static_cast<unsigned>(std::atoi(argv[2])));
        qv::Peer peer(port);
        const bool inStep = peer.sync();
        std::puts(inStep ? "in step" : "no answer");
        return inStep ? 0 : 3;
    } catch (const qv::LineError& error) {
        std::fprintf(stderr, "vorlan-qv: %s\n", error.what());
        return 3;
    }
}
