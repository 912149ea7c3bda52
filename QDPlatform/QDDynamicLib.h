#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDFilePath.h>

// Loads one shared library while the program runs, and finds functions in it.
//
//     QDDynamicLib library;
//     char error[256];
//     if (library.LoadQDLibrary("protocol", error, sizeof error))
//         entry = library.FindFunction("qd_protocol_entry");
//
// Symbols are bound when they are first called; those of the library are not offered to libraries that are loaded
// later. Names must not be null. Nothing is logged.
//
// A load gives up what was loaded before, but only after its attempts. So a library that is loaded again is the one in
// memory, even where its file has been replaced since.
//
// Thread:  one at a time. What FindFunction() found may be called as the library itself permits.
//
// Owns:    the loaded library, from a load that succeeds until UnloadLibrary() or the next load. The destructor does
//          not unload: functions that were found stay valid for the rest of the process.
class QD_API QDDynamicLib
{
public:
    // Nothing is loaded.
    QDDynamicLib();
    QDDynamicLib(const QDDynamicLib&) = delete;
    QDDynamicLib& operator=(const QDDynamicLib&) = delete;
    ~QDDynamicLib();

    // Loads "lib<name>.so", one of the product's own libraries. It is looked for beside the program that this process
    // runs, whose path has at most 511 bytes (CQDFilePath::SetToModuleFileName()): in the folder
    // "../lib/quendrel-scada" as seen from the program's, then in "../lib", then in the program's own. The first that
    // can be loaded is taken.
    //
    // Returns true when one was loaded. On failure nothing is loaded, and `errorText` holds the loader's text on the
    // last of the three, or says that the name has more than 1017 bytes or that the program's path cannot be found out.
    // The text is cut to `errorSize` - 1 bytes; `errorSize` is at least 1. On success `errorText` stays as it was.
    bool LoadQDLibrary(const char* name, char* errorText, unsigned int errorSize);

    // Loads a library of the operating system from where the system's loader finds it: "lib<name>.so", the link that
    // development packages bring, and where that cannot be loaded "lib<name>.so.<majorVersion>".
    //
    // Returns true when one was loaded; `errorText` is then empty. On failure nothing is loaded, and `errorText` holds
    // the loader's text on the second name, or says that the name is too long: either file name has 1023 bytes at most.
    // The text is cut as above.
    bool LoadOSLibrary(const char* name, int majorVersion, char* errorText, unsigned int errorSize);

    // The address of a function or datum of the library, or of one that the library depends on; null when there is none
    // of that name, and when nothing is loaded. Where null is returned although a library is loaded, dlerror() tells
    // the reason, unless the symbol's own value is null.
    void* FindFunction(const char* symbol);

    // Gives the library up, and clears the path. The library leaves memory when nobody else holds it; what was found in
    // it must not be used any more. Nothing happens when nothing is loaded.
    void UnloadLibrary();

    // The loader's handle, as dlsym() takes it; null when nothing is loaded.
    void* GetDynamicLibAddress() const;

    // Where the loaded library was found, not brought to its canonical form ("/opt/q/bin/../lib/libx.so"). For a
    // library of the system the folder is the loader's; only the file name where the loader does not tell. Empty when
    // nothing is loaded.
    const CQDFilePath& GetPath() const;

private:
    QD_LOCAL bool OpenQDLibrary(const char* name, char* errorText, unsigned int errorSize);
    QD_LOCAL bool OpenOSLibrary(const char* name, int majorVersion, char* errorText, unsigned int errorSize);

    void* m_pLibrary{nullptr}; // what dlopen() returned
    CQDFilePath m_Path;
};
