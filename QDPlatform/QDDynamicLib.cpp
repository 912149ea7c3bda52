#include <QDPlatform/QDDynamicLib.h>

#include <QDPlatform/QDString.h>

#include <dlfcn.h>

#include <string>
#include <utility>

namespace
{

constexpr unsigned kFileNameBytes = 1024;
// The loader copies the folder without a bound. It is a path that the kernel took, below 4096 bytes, behind the current
// folder, below 4096 as well, where LD_LIBRARY_PATH holds a relative one.
constexpr unsigned kOriginBytes = 2 * 4096;
constexpr char kNameTooLong[] = "The name of the library is too long";
// As seen from the program's folder, in the order of the search.
constexpr char kPlugInFolders[][32] = {"../lib/quendrel-scada", "../lib", ""};

void CopyLoaderError(char* errorText, unsigned int errorSize)
{
    const char* const error = ::dlerror();
    qd_strcpy(errorText, errorSize, error != nullptr ? error : "Unknown error of the loader");
}

// The file of a library that the system's loader found.
std::string FindLoadedPath(void* library, const char* fileName)
{
    char folder[kOriginBytes];
    if (::dlinfo(library, RTLD_DI_ORIGIN, folder) != 0)
        return fileName;
    CQDFilePath path(folder);
    path.AppendFileName(fileName);
    return path.GetPath();
}

} // namespace

QDDynamicLib::QDDynamicLib() = default;

QDDynamicLib::~QDDynamicLib() = default;

// The library that is replaced goes last: when it is the same one, it never leaves memory.
bool QDDynamicLib::LoadQDLibrary(const char* name, char* errorText, unsigned int errorSize)
{
    void* const previous = std::exchange(m_pLibrary, nullptr);
    const bool isLoaded = OpenQDLibrary(name, errorText, errorSize);
    if (previous != nullptr)
        ::dlclose(previous);
    return isLoaded;
}

bool QDDynamicLib::LoadOSLibrary(const char* name, int majorVersion, char* errorText, unsigned int errorSize)
{
    void* const previous = std::exchange(m_pLibrary, nullptr);
    const bool isLoaded = OpenOSLibrary(name, majorVersion, errorText, errorSize);
    if (previous != nullptr)
        ::dlclose(previous);
    return isLoaded;
}

void* QDDynamicLib::FindFunction(const char* symbol)
{
    // A null handle would be RTLD_DEFAULT, and find functions of the program itself.
    return m_pLibrary != nullptr ? ::dlsym(m_pLibrary, symbol) : nullptr;
}

void QDDynamicLib::UnloadLibrary()
{
    if (m_pLibrary == nullptr)
        return;
    ::dlclose(std::exchange(m_pLibrary, nullptr));
    m_Path.Clear();
}

void* QDDynamicLib::GetDynamicLibAddress() const
{
    return m_pLibrary;
}

const CQDFilePath& QDDynamicLib::GetPath() const
{
    return m_Path;
}

bool QDDynamicLib::OpenQDLibrary(const char* name, char* errorText, unsigned int errorSize)
{
    m_Path.Clear();
    char fileName[kFileNameBytes];
    // Not tried when it does not fit: the cut name could be that of another file.
    if (qd_sprintf(fileName, sizeof fileName, "lib%s.so", name) >= QDFormatEncodingError) {
        qd_strcpy(errorText, errorSize, kNameTooLong);
        return false;
    }
    CQDFilePath program;
    program.SetToModuleFileName();
    if (program.IsEmpty()) { // without a folder the loader would search the current one and the system's
        qd_strcpy(errorText, errorSize, "The path of the running program is not known");
        return false;
    }
    program.ChangeNameAndExtension(""); // its folder
    for (const char* folder : kPlugInFolders) {
        m_Path.SetFromString(program.GetPath());
        if (folder[0] != '\0')
            m_Path.AppendFileName(folder);
        m_Path.AppendFileName(fileName);
        m_pLibrary = ::dlopen(m_Path.GetPathCStr(), RTLD_LAZY);
        if (m_pLibrary != nullptr)
            return true;
    }
    CopyLoaderError(errorText, errorSize);
    m_Path.Clear();
    return false;
}

bool QDDynamicLib::OpenOSLibrary(const char* name, int majorVersion, char* errorText, unsigned int errorSize)
{
    m_Path.Clear();
    errorText[0] = '\0';
    char fileName[kFileNameBytes];
    if (qd_sprintf(fileName, sizeof fileName, "lib%s.so", name) < QDFormatEncodingError)
        m_pLibrary = ::dlopen(fileName, RTLD_LAZY);
    if (m_pLibrary == nullptr) {
        if (qd_sprintf(fileName, sizeof fileName, "lib%s.so.%d", name, majorVersion) >= QDFormatEncodingError) {
            qd_strcpy(errorText, errorSize, kNameTooLong);
            return false;
        }
        m_pLibrary = ::dlopen(fileName, RTLD_LAZY);
    }
    if (m_pLibrary == nullptr) {
        CopyLoaderError(errorText, errorSize);
        return false;
    }
    m_Path.SetFromString(FindLoadedPath(m_pLibrary, fileName));
    return true;
}
