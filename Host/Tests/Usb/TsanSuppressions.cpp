// SPDX-License-Identifier: MIT

extern "C" __attribute__((visibility("default"))) const char *__tsan_default_suppressions();

// Exported, because ThreadSanitizer looks it up by name. These are not instrumented, and their
// locks are of their own making, so that what they do seems to be unordered. What this project's
// own code does is looked at.
const char *__tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so.0\n"
           "called_from_lib:libgobject-2.0.so.0\n"
           "called_from_lib:libgio-2.0.so.0\n"
           "called_from_lib:libQt5Test.so.5\n"
           "race:QWaitCondition::~QWaitCondition\n"
           "called_from_lib:libudev.so.1\n"
           "called_from_lib:libumockdev.so.0\n"
           "called_from_lib:libumockdev-preload.so.0\n";
}
