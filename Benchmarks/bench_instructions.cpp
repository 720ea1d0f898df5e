// SPDX-License-Identifier: MIT
// Does one operation a number of times, for a tool that counts instructions: the difference of two
// runs with different numbers is what the operation takes.

#include "BenchCore.h"

#include <UsbHalLog.h>

#include <functional>
#include <map>
#include <string>

namespace {

constexpr int messagesAtOnce = 50; // fewer than the FIFO takes

class Operations
{
public:
    explicit Operations(const std::string &operation) : _core(operation == "log") {}

    void log(int number) { logLine("write", {"Add to write queue message of size: ", number}); }
    void frame(int number)
    {
        _core.locked([this](QMutexLocker &) { _core.queue(_payload); });
        clearFifoSometimes(number);
    }
    void cut(int /*number*/)
    {
        require(usb_messages::cutData(_message).payloadSize == _payload.size(), "cuts");
    }
    void deliver(int number)
    {
        _core.receive(_message);
        if (number % messagesAtOnce == 0)
            _core.locked([this](QMutexLocker &) { _core._clearReadFifo(); });
    }
    void write(int number)
    {
        require(_core.write(BenchCore::port, _payload) == _payload.size(), "writes");
        clearFifoSometimes(number);
    }
    void read(int /*number*/)
    {
        _core._readQueues.value(BenchCore::port)->enqueue(_payload);
        require(_core.read(BenchCore::port, 1000) == _payload, "reads");
    }

private:
    void clearFifoSometimes(int number)
    {
        if (number % messagesAtOnce == 0)
            _core.locked([this](QMutexLocker &) { _core._clearWriteFifo(); });
    }

    BenchCore _core;
    const QByteArray _payload = patternBytes(100);
    const QByteArray _message = dataMessage(BenchCore::port, _payload);
};

const std::map<std::string, void (Operations::*)(int)> operations = {
    {"log", &Operations::log},         {"frame", &Operations::frame}, {"cut", &Operations::cut},
    {"deliver", &Operations::deliver}, {"write", &Operations::write}, {"read", &Operations::read}};

} // namespace

int main(int argc, char *argv[])
{
    const auto entry = argc == 3 ? operations.find(argv[1]) : operations.end();
    const int count = argc == 3 ? atoi(argv[2]) : 0;
    if (entry == operations.end() || count <= 0) {
        std::fprintf(stderr, "bench_instructions: it should be: bench_instructions "
                             "log|frame|cut|deliver|write|read COUNT\n");
        return 2;
    }
    Operations run(entry->first);
    for (int number = 1; number <= count; ++number)
        (run.*entry->second)(number);
    return 0;
}
