// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_BYTEQUEUE_H
#define USBHALHOST_BYTEQUEUE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace usbhalhost {

/**
 * First-in first-out bytes; taking from the front costs time in proportion to what is taken. A
 * queue is used by one thread at a time.
 */
class ByteQueue
{
public:
    /** Bytes that are queued. */
    std::size_t size() const { return _bytes.size() - _head; }
    /** Whether no byte is queued. */
    bool isEmpty() const { return size() == 0; }

    /** Copies the bytes to the end of the queue; views from front() are no longer valid. */
    void append(std::string_view bytes) { _bytes.append(bytes); }

    /**
     * A view of the first bytes: count of them, or all when there are fewer. Valid until the queue
     * changes.
     */
    std::string_view front(std::size_t count) const;

    /** Removes the first bytes: count of them, or all when there are fewer. */
    void removeFront(std::size_t count);

    /** Empties the queue and returns what it held. */
    std::string takeAll();

private:
    std::string _bytes;
    std::size_t _head = 0;
};

} // namespace usbhalhost

#endif
