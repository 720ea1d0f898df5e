// SPDX-License-Identifier: MIT
#ifndef CLIENTTHREADS_H
#define CLIENTTHREADS_H

#include <QtGlobal>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

/** Threads that do the same over and over until this object ends. */
class ClientThreads
{
public:
    /** Starts so many threads, numbered from 1; step(number) is called again and again in each. */
    ClientThreads(int count, const std::function<void(int)> &step)
    {
        for (int number = 1; number <= count; ++number) {
            _threads.emplace_back([=] {
                while (!_ending)
                    step(number);
            });
        }
    }
    ~ClientThreads()
    {
        _ending = true;
        for (std::thread &thread : _threads)
            thread.join();
    }
    Q_DISABLE_COPY(ClientThreads)

private:
    std::atomic<bool> _ending{false};
    std::vector<std::thread> _threads;
};

#endif
