// SPDX-License-Identifier: MIT
#ifndef HOSTPEER_BYTEQUEUE_H
#define HOSTPEER_BYTEQUEUE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace hostpeer {

/** First-in first-out bytes; taking from the front costs time in proportion to what is taken. */
class ByteQueue
{
public:
    std::size_t size() const { return _bytes.size() - _head; }
    bool isEmpty() const { return size() == 0; }

    void append(std::string_view bytes) { _bytes.append(bytes); }

    /** A view of the first bytes, at most count of them; valid until the queue changes. */
    std::string_view front(std::size_t count) const;

    /** Removes the first bytes, at most count of them. */
    void removeFront(std::size_t count);

    /** Empties the queue and returns what it held. */
    std::string takeAll();

private:
    std::string _bytes;
    std::size_t _head = 0;
};

} // namespace hostpeer

#endif
