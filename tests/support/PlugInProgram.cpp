// Loads a library from where tests have put it and this program, and prints "loaded", the kept path and the path that
// the plug-in (PlugIn.cpp) tells of itself, one a line; or "failed" and the error.
//
//   plug-in-program NAME            LoadQDLibrary()
//   plug-in-program NAME VERSION    LoadOSLibrary()
#include <QDPlatform/QDDynamicLib.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3)
        return 2;
    QDDynamicLib library;
    char error[512] = "not set";
    const bool isLoaded = argc == 2 ? library.LoadQDLibrary(argv[1], error, sizeof error)
                                    : library.LoadOSLibrary(argv[1], std::atoi(argv[2]), error, sizeof error);
    if (!isLoaded) {
        std::printf("failed\n%s\n", error);
        return 1;
    }
    void* const function = library.FindFunction("qd_test_plug_in_file");
    const char* const file = function != nullptr ? reinterpret_cast<const char* (*)()>(function)() : "no plug-in";
    std::printf("loaded\n%s\n%s\n", library.GetPath().GetPathCStr(), file);
    library.UnloadLibrary();
    return 0;
}
