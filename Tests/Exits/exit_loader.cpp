// SPDX-License-Identifier: MIT
//
// A client that is not linked with the library: it loads it, or a module that needs it, and lets it
// go again. Arguments as those of usbhal-exit-client.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void check(bool condition, const char *what)
{
    if (condition)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::_Exit(1);
}

void *load(const char *path)
{
    void *const handle = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    check(handle, "the library cannot be loaded");
    return handle;
}

template <typename Function>
Function find(void *handle, const char *name)
{
    const auto function = reinterpret_cast<Function>(::dlsym(handle, name));
    check(function, "a function is missing");
    return function;
}

bool isThere(const char *path)
{
    void *const handle = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (handle)
        ::dlclose(handle);
    return handle != nullptr;
}

// What is loaded again comes to lie elsewhere, so that nothing that points to where it was works by
// chance.
void occupy(const void *place)
{
    const auto pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(place) & ~(pageSize - 1);
    ::mmap(reinterpret_cast<void *>(page), pageSize, PROT_NONE,
           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
}

// The library stays, as its thread and Qt's knowledge of its types do.
void unload(void *handle)
{
    check(::dlclose(handle) == 0, "the library cannot be let go");
    check(isThere(USBHAL_LIBRARY), "the library was unloaded");
}

void runAndUnload(const QByteArray &scenario, const char *logFolder)
{
    void *const plugin = load(USBHAL_EXIT_PLUGIN);
    const auto runInPlugin = find<void (*)(const char *, const char *)>(plugin, "runInPlugin");
    runInPlugin(scenario.constData(), logFolder);
    unload(plugin);
    check(!isThere(USBHAL_EXIT_PLUGIN), "the module is still there");
    occupy(reinterpret_cast<const void *>(runInPlugin));
}

void run(const QByteArray &scenario, const char *logFolder)
{
    if (scenario == "library loaded") {
        unload(load(USBHAL_LIBRARY));
    } else if (scenario == "instance taken") {
        void *const library = load(USBHAL_LIBRARY);
        check(find<void *(*)()>(library, "_ZN10UsbHALIntf11getInstanceEv")() != nullptr,
              "no instance");
        unload(library);
    } else if (scenario.startsWith("again and again, ")) {
        for (int i = 0; i < 3; ++i)
            runAndUnload(scenario.mid(17), logFolder);
    } else {
        runAndUnload(scenario, logFolder);
    }
}

} // namespace

int main(int argc, char *argv[])
{
    check(argc >= 3, "usage: usbhal-exit-loader SCENARIO LOG_FOLDER [application]");
    std::unique_ptr<QCoreApplication> application;
    if (argc > 3)
        application.reset(new QCoreApplication(argc, argv));
    run(argv[1], argv[2]);
    return 0;
}
