// SPDX-License-Identifier: MIT
#include "SteppedDriver.h"

#include <UsbHal.h>

// The linker sends the facade's construction of its core here; __real_ is the core's constructor.
// On 32-bit ARM a constructor returns its object.
extern "C" {
void __real__ZN6UsbHALC1ERK5QListI14QSharedPointerI14AbstractDriverEE(
    UsbHAL *self, const QList<QSharedPointer<AbstractDriver>> &drivers);
UsbHAL *__wrap__ZN6UsbHALC1ERK5QListI14QSharedPointerI14AbstractDriverEE(
    UsbHAL *self, const QList<QSharedPointer<AbstractDriver>> &drivers);
}

namespace {

const QSharedPointer<SteppedDriver> &driver()
{
    static const auto &shared = *new QSharedPointer<SteppedDriver>(new SteppedDriver);
    return shared;
}

} // namespace

UsbHAL *__wrap__ZN6UsbHALC1ERK5QListI14QSharedPointerI14AbstractDriverEE(
    UsbHAL *self, const QList<QSharedPointer<AbstractDriver>> & /*drivers*/)
{
    __real__ZN6UsbHALC1ERK5QListI14QSharedPointerI14AbstractDriverEE(self, {driver()});
    return self;
}

SteppedDriver &SteppedDriver::instance()
{
    return *driver();
}

SteppedDriver::Call SteppedDriver::waitForCall()
{
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return _call != Call::None; });
    return _call;
}

void SteppedDriver::endRead(const QByteArray &block)
{
    _block = block;
    _end(!block.isEmpty());
}

void SteppedDriver::endWrite(bool works)
{
    _end(works);
}

void SteppedDriver::release()
{
    const std::lock_guard<std::mutex> lock(_mutex);
    _released = true;
    _works = false;
    _changed.notify_all();
}

int SteppedDriver::read(QByteArray *data)
{
    _wait(Call::Read);
    if (!_works)
        return 0;
    data->setRawData(_block.constData(), static_cast<uint>(_block.size()));
    return data->size();
}

int SteppedDriver::write(QByteArray data)
{
    _message = data;
    _wait(Call::Write);
    return _works ? data.size() : 0;
}

void SteppedDriver::_wait(Call call)
{
    std::unique_lock<std::mutex> lock(_mutex);
    _call = call;
    _changed.notify_all();
    _changed.wait(lock, [this] { return _call == Call::None || _released; });
}

void SteppedDriver::_end(bool works)
{
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _works = works;
        _call = Call::None;
        _changed.notify_all();
    }
    waitForCall();
}
