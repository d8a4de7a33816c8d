#include <modbus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

// A slave that answers the read of one register, made with libmodbus as its manual has it. It ends when the line is
// hung up.

int main(int argc, char** argv)
{
    const char* device = nullptr;
    int baud = 0;
    for (int opt = 0; (opt = getopt(argc, argv, "s:b:")) != -1;) {
        if (opt == 's')
            device = optarg;
        else if (opt == 'b')
            baud = std::atoi(optarg);
    }
    if (device == nullptr || baud == 0) {
        std::fputs("Usage: modbus_slave -s DEVICE -b RATE\n", stderr);
        return 2;
    }
    const std::unique_ptr<modbus_t, void (*)(modbus_t*)> slave(modbus_new_rtu(device, baud, 'N', 8, 1), modbus_free);
    const std::unique_ptr<modbus_mapping_t, void (*)(modbus_mapping_t*)> registers(modbus_mapping_new(0, 0, 1, 0),
                                                                                   modbus_mapping_free);
    if (!slave || !registers || modbus_set_slave(slave.get(), 1) != 0 || modbus_connect(slave.get()) != 0) {
        std::fprintf(stderr, "modbus_slave: %s: %s\n", device, modbus_strerror(errno));
        return 1;
    }
    std::array<std::uint8_t, MODBUS_RTU_MAX_ADU_LENGTH> request{};
    for (;;) {
        const int length = modbus_receive(slave.get(), request.data());
        if (length > 0)
            modbus_reply(slave.get(), request.data(), length, registers.get());
        else if (length < 0)
            break;
    }
    modbus_close(slave.get());
    return 0;
}
