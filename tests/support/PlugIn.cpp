// A plug-in library for tests of QDDynamicLib.
#include <dlfcn.h>

extern "C" void qd_test_defined_nowhere();

// The file that this code was loaded from.
extern "C" const char* qd_test_plug_in_file()
{
    Dl_info info;
    return ::dladdr(reinterpret_cast<void*>(&qd_test_plug_in_file), &info) != 0 ? info.dli_fname : "";
}

// How often it was called since the library came into memory.
extern "C" int qd_test_plug_in_count_calls()
{
    static int calls = 0;
    return ++calls;
}

// A loader that binds all functions at once would refuse the library for this. Never to be called.
extern "C" void qd_test_plug_in_without_its_function()
{
    qd_test_defined_nowhere();
}
