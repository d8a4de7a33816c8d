// Makes a folder and a bus, says so, and waits to be killed.
#include "sim/PrivateBus.h"
#include "sim/TempDir.h"

#include <unistd.h>

#include <iostream>

int main()
{
    sim::TempDir folder;
    sim::PrivateBus bus(folder.path(), "bus");
    bus.start();
    std::cout << folder.path() << ' ' << bus.pid() << std::endl;
    for (;;)
        pause();
}
