#include <QDPlatform/QDDynamicLib.h>

#include "ChildProcess.h"
#include "FaultPlan.h"
#include "MountedOver.h"
#include "NextFunction.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <string>
#include <type_traits>

namespace
{

using testing::AllOf;
using testing::EndsWith;
using testing::StartsWith;

bool g_FailDlinfo = false;

// The library's name beside this program: PLUG_IN is "<folder of the tests>/libqd-test-plug-in.so".
constexpr char kPlugInName[] = "qd-test-plug-in";

std::string FolderOfThisProgram()
{
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    return std::filesystem::path(std::string(path, length > 0 ? static_cast<std::size_t>(length) : 0)).parent_path();
}

// Whether the plug-in beside this program is in memory.
bool IsPlugInInMemory()
{
    void* const library = ::dlopen(PLUG_IN, RTLD_LAZY | RTLD_NOLOAD);
    if (library != nullptr)
        ::dlclose(library);
    return library != nullptr;
}

// A program in TMP/bin, which may have plug-ins in the three places.
class InstalledProgram
{
public:
    InstalledProgram()
    {
        std::filesystem::create_directories(m_Folder / "bin");
        std::filesystem::create_directories(m_Folder / "lib/quendrel-scada");
        std::filesystem::copy_file(PLUG_IN_PROGRAM, m_Folder / "bin/program");
    }

    // place: a path below TMP.
    void PutPlugIn(const std::string& place) const { std::filesystem::copy_file(PLUG_IN, m_Folder / place); }

    std::string operator/(const std::string& name) const { return m_Folder / name; }

    std::string Run(const std::string& name) const
    {
        ChildProcess program({m_Folder / "bin/program", name});
        program.WaitForExit();
        return program.GetOutput() + program.GetErrors();
    }

private:
    TemporaryFolder m_Folder;
};

// What the program prints that loads "libqdtest.so" with major version 7 as a library of the system from `folder`.
std::string LoadOSLibraryFrom(const std::string& folder)
{
    ChildProcess program({"env", "LD_LIBRARY_PATH=" + folder, PLUG_IN_PROGRAM, "qdtest", "7"});
    program.WaitForExit();
    return program.GetOutput() + program.GetErrors();
}

} // namespace

// Stands in front of the C library's, for the test in which it fails.
extern "C" int dlinfo(void* library, int request, void* result) noexcept
{
    return g_FailDlinfo ? -1 : NextFunction("dlinfo", &dlinfo)(library, request, result);
}

static_assert(!std::is_copy_constructible_v<QDDynamicLib> && !std::is_copy_assignable_v<QDDynamicLib>);

TEST(QDDynamicLib, NewObjectHasNothingLoaded)
{
    const QDDynamicLib library;

    EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
    EXPECT_TRUE(library.GetPath().IsEmpty());
}

// --- LoadQDLibrary ---

TEST(QDDynamicLib, PlugInIsTakenFromTheFirstOfThreePlaces)
{
    const InstalledProgram program;

    struct Step
    {
        const char* m_File; // put there in this step
        const char* m_KeptPath;
        const char* m_RealPath;
    };

    const Step steps[] = {
        {"bin/libplug.so", "bin/libplug.so", "bin/libplug.so"},
        {"lib/libplug.so", "bin/../lib/libplug.so", "lib/libplug.so"},
        {"lib/quendrel-scada/libplug.so", "bin/../lib/quendrel-scada/libplug.so", "lib/quendrel-scada/libplug.so"},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.m_File);

        program.PutPlugIn(step.m_File);

        EXPECT_EQ(program.Run("plug"),
                  "loaded\n" + program / step.m_KeptPath + "\n" + program / step.m_KeptPath + "\n");
        EXPECT_TRUE(std::filesystem::equivalent(program / step.m_KeptPath, program / step.m_RealPath));
    }
}

TEST(QDDynamicLib, PlugInThatCannotBeLoadedIsPassedOver)
{
    const InstalledProgram program;
    WriteFileText(program / "lib/quendrel-scada/libplug.so", "not a library");
    program.PutPlugIn("lib/libplug.so");

    const std::string output = program.Run("plug");

    EXPECT_EQ(output, "loaded\n" + program / "bin/../lib/libplug.so" + "\n" + program / "bin/../lib/libplug.so" + "\n");
}

TEST(QDDynamicLib, PlacesAreThoseOfTheProgramNotOfTheCurrentFolder)
{
    const InstalledProgram program;
    program.PutPlugIn("bin/libplug.so");

    ChildProcess elsewhere({"sh", "-c", "cd / && exec \"$0\" plug", program / "bin/program"});

    EXPECT_EQ(elsewhere.WaitForExit(), 0);
    EXPECT_EQ(elsewhere.GetOutput(),
              "loaded\n" + program / "bin/libplug.so" + "\n" + program / "bin/libplug.so" + "\n");
}

TEST(QDDynamicLib, FailureOfAllThreePlacesTellsOfTheLast)
{
    const InstalledProgram program;
    WriteFileText(program / "lib/quendrel-scada/libplug.so", "");

    const std::string output = program.Run("plug");

    EXPECT_EQ(output, "failed\n" + program / "bin/libplug.so" +
                          ": cannot open shared object file: No such file or directory\n");
}

TEST(QDDynamicLib, FailedLoadLeavesNothing)
{
    QDDynamicLib library;
    char error[512] = "before";

    EXPECT_FALSE(library.LoadQDLibrary("qd-no-such-plug-in", error, sizeof error));

    EXPECT_EQ(error, FolderOfThisProgram() +
                         "/libqd-no-such-plug-in.so: cannot open shared object file: No such file or directory");
    EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
    EXPECT_TRUE(library.GetPath().IsEmpty());
}

TEST(QDDynamicLib, ErrorTextIsCutToItsBuffer)
{
    struct Case
    {
        const char* m_Name;
        bool m_IsPlugIn;
        const char* m_Text;
    };

    const Case cases[] = {{"plug-in", true, "/"}, {"system", false, "l"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDDynamicLib library;
        char error[] = "????";

        EXPECT_FALSE(c.m_IsPlugIn ? library.LoadQDLibrary("qd-none", error, 2)
                                  : library.LoadOSLibrary("qd-none", 1, error, 2));

        EXPECT_STREQ(error, c.m_Text);
        EXPECT_STREQ(error + 2, "??");
    }
}

TEST(QDDynamicLib, SuccessLeavesTheErrorTextOfAPlugInAsItWas)
{
    QDDynamicLib library;
    char error[16] = "before";

    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error));

    EXPECT_STREQ(error, "before");
    library.UnloadLibrary();
}

TEST(QDDynamicLib, PlugInNameMayHave1017Bytes)
{
    QDDynamicLib library;
    char error[512];

    EXPECT_FALSE(library.LoadQDLibrary(std::string(1017, 'a').c_str(), error, sizeof error));
    EXPECT_STREQ(error, (FolderOfThisProgram() + "/lib" + std::string(1017, 'a')).substr(0, 511).c_str());

    EXPECT_FALSE(library.LoadQDLibrary(std::string(1018, 'a').c_str(), error, sizeof error));
    EXPECT_STREQ(error, "The name of the library is too long");
    EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
}

TEST(QDDynamicLib, ProgramWithoutAKnownPathLoadsNothingFromElsewhere)
{
    QDDynamicLib library;
    char error[512];
    const FaultPlan plan("readlink", 1, EACCES);

    EXPECT_FALSE(library.LoadQDLibrary(kPlugInName, error, sizeof error));

    EXPECT_STREQ(error, "The path of the running program is not known");
    EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
}

TEST(QDDynamicLib, FunctionsAreBoundWhenTheyAreCalled)
{
    QDDynamicLib library;
    char error[512] = "";

    // Its qd_test_plug_in_without_its_function() calls one that is nowhere.
    EXPECT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;

    EXPECT_NE(library.FindFunction("qd_test_plug_in_without_its_function"), nullptr);
    library.UnloadLibrary();
}

TEST(QDDynamicLib, LoadedFunctionsAreNotOfferedToOthers)
{
    QDDynamicLib library;
    char error[512] = "";

    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;

    EXPECT_EQ(::dlsym(RTLD_DEFAULT, "qd_test_plug_in_file"), nullptr);
    library.UnloadLibrary();
}

// --- LoadOSLibrary ---

TEST(QDDynamicLib, DevelopmentLinkComesBeforeTheVersionedName)
{
    const TemporaryFolder folder;
    const std::string link = folder / "libqdtest.so";
    const std::string versioned = folder / "libqdtest.so.7";

    EXPECT_EQ(LoadOSLibraryFrom(folder.GetPath()),
              "failed\nlibqdtest.so.7: cannot open shared object file: No such file or directory\n");

    std::filesystem::copy_file(PLUG_IN, versioned);
    EXPECT_EQ(LoadOSLibraryFrom(folder.GetPath()), "loaded\n" + versioned + "\n" + versioned + "\n");

    std::filesystem::copy_file(PLUG_IN, link);
    EXPECT_EQ(LoadOSLibraryFrom(folder.GetPath()), "loaded\n" + link + "\n" + link + "\n");
}

TEST(QDDynamicLib, VersionedNameIsTriedWhenTheLinkIsNoLibrary)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "libqdtest.so", "");
    std::filesystem::copy_file(PLUG_IN, folder / "libqdtest.so.7");

    const std::string output = LoadOSLibraryFrom(folder.GetPath());

    EXPECT_EQ(output, "loaded\n" + folder / "libqdtest.so.7" + "\n" + folder / "libqdtest.so.7" + "\n");
}

TEST(QDDynamicLib, LibraryOfTheSystemIsFoundByTheLoader)
{
    QDDynamicLib library;
    char error[256] = "before";

    ASSERT_TRUE(library.LoadOSLibrary("systemd", 0, error, sizeof error)) << error;

    EXPECT_STREQ(error, "");
    std::string name;
    library.GetPath().GetNameAndExtension(name);
    EXPECT_EQ(name, "libsystemd.so"); // libsystemd-dev is installed
    EXPECT_TRUE(library.GetPath().IsAbsolute());
    EXPECT_NE(library.FindFunction("sd_bus_open_system"), nullptr);
    EXPECT_EQ(::dlsym(RTLD_DEFAULT, "sd_bus_open_system"), nullptr); // not offered to others
    library.UnloadLibrary();
}

TEST(QDDynamicLib, LibraryOfTheSystemIsFoundWithoutItsDevelopmentLink)
{
    const std::filesystem::path link = SYSTEMD_LIBRARY;
    const ChangeableFolder libraries(std::filesystem::canonical(link.parent_path()));
    if (!libraries.IsMounted())
        GTEST_SKIP() << libraries.GetReason();
    ASSERT_TRUE(std::filesystem::remove(link));

    // In a process of its own: the emulator of other architectures remembers which of the system's files exist.
    ChildProcess program({PLUG_IN_PROGRAM, "systemd", "0"});

    EXPECT_EQ(program.WaitForExit(), 0) << program.GetErrors();
    EXPECT_THAT(program.GetOutput(), AllOf(StartsWith("loaded\n/"), EndsWith("/libsystemd.so.0\nno plug-in\n")));
}

TEST(QDDynamicLib, MissingLibraryOfTheSystemTellsOfTheVersionedName)
{
    QDDynamicLib library;
    char error[256];

    EXPECT_FALSE(library.LoadOSLibrary("qd-no-such-library", 3, error, sizeof error));

    EXPECT_STREQ(error, "libqd-no-such-library.so.3: cannot open shared object file: No such file or directory");
    EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
    EXPECT_TRUE(library.GetPath().IsEmpty());
}

TEST(QDDynamicLib, OSLibraryNameThatDoesNotFitIsRefused)
{
    QDDynamicLib library;
    char error[2048];

    EXPECT_FALSE(library.LoadOSLibrary(std::string(1015, 'a').c_str(), 0, error, sizeof error)); // "lib", ".so.0"
    EXPECT_EQ(error, "lib" + std::string(1015, 'a') + ".so.0: cannot open shared object file: File name too long");

    EXPECT_FALSE(library.LoadOSLibrary(std::string(1016, 'a').c_str(), 0, error, sizeof error));
    EXPECT_STREQ(error, "The name of the library is too long");

    EXPECT_FALSE(library.LoadOSLibrary(std::string(5000, 'a').c_str(), 0, error, sizeof error));
    EXPECT_STREQ(error, "The name of the library is too long");
}

TEST(QDDynamicLib, PathIsTheFileNameWhereTheLoaderTellsNoFolder)
{
    QDDynamicLib library;
    char error[256] = "";
    g_FailDlinfo = true;

    const bool isLoaded = library.LoadOSLibrary("systemd", 0, error, sizeof error);

    g_FailDlinfo = false;
    EXPECT_TRUE(isLoaded) << error;
    EXPECT_EQ(library.GetPath().GetPath(), "libsystemd.so");
    library.UnloadLibrary();
}

// --- FindFunction ---

TEST(QDDynamicLib, FindFunctionAsksNobodyWhileNothingIsLoaded)
{
    QDDynamicLib library;
    ::dlerror(); // forgets what was before

    EXPECT_EQ(library.FindFunction("malloc"), nullptr);
    EXPECT_EQ(library.FindFunction("qd_no_such_function"), nullptr);

    EXPECT_EQ(::dlerror(), nullptr);
}

TEST(QDDynamicLib, FoundFunctionIsTheLibrarys)
{
    QDDynamicLib library;
    char error[512] = "";
    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;

    void* const function = library.FindFunction("qd_test_plug_in_file");

    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function, ::dlsym(library.GetDynamicLibAddress(), "qd_test_plug_in_file"));
    EXPECT_EQ(reinterpret_cast<const char* (*)()>(function)(), library.GetPath().GetPath());
    library.UnloadLibrary();
}

TEST(QDDynamicLib, MissingFunctionIsNullAndTheLoaderTellsWhy)
{
    QDDynamicLib library;
    char error[512] = "";
    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;

    EXPECT_EQ(library.FindFunction("qd_no_such_function"), nullptr);

    EXPECT_EQ(::dlerror(), library.GetPath().GetPath() + ": undefined symbol: qd_no_such_function");
    library.UnloadLibrary();
}

// --- UnloadLibrary ---

TEST(QDDynamicLib, UnloadTakesTheLibraryOutOfMemoryAndTwiceIsHarmless)
{
    QDDynamicLib library;
    char error[512] = "";
    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;
    EXPECT_EQ(library.GetPath().GetPath(), FolderOfThisProgram() + "/libqd-test-plug-in.so");
    EXPECT_TRUE(IsPlugInInMemory());

    for (const char* turn : {"first", "second"}) {
        SCOPED_TRACE(turn);
        library.UnloadLibrary();

        EXPECT_FALSE(IsPlugInInMemory());
        EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
        EXPECT_TRUE(library.GetPath().IsEmpty());
        EXPECT_EQ(library.FindFunction("qd_test_plug_in_file"), nullptr);
    }
}

TEST(QDDynamicLib, UnloadBeforeAnyLoadIsHarmless)
{
    QDDynamicLib library;

    library.UnloadLibrary();

    EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
}

TEST(QDDynamicLib, DestructorDoesNotUnload)
{
    void* handle = nullptr;
    {
        QDDynamicLib library;
        char error[512] = "";
        ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;
        handle = library.GetDynamicLibAddress();
    }

    EXPECT_TRUE(IsPlugInInMemory());
    EXPECT_EQ(::dlclose(handle), 0);
    EXPECT_FALSE(IsPlugInInMemory());
}

TEST(QDDynamicLib, SecondLoadReplacesTheFirst)
{
    QDDynamicLib library;
    char error[512] = "";

    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;
    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;
    library.UnloadLibrary();
    EXPECT_FALSE(IsPlugInInMemory());

    ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;
    ASSERT_TRUE(library.LoadOSLibrary("systemd", 0, error, sizeof error)) << error;
    EXPECT_FALSE(IsPlugInInMemory());
    library.UnloadLibrary();
}

TEST(QDDynamicLib, SameLibraryLoadedAgainStaysInMemory)
{
    QDDynamicLib library;
    char error[512] = "";

    for (int load = 1; load <= 3; ++load) {
        ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;
        void* const function = library.FindFunction("qd_test_plug_in_count_calls");
        ASSERT_NE(function, nullptr);

        EXPECT_EQ(reinterpret_cast<int (*)()>(function)(), load); // its memory is the same
    }
    library.UnloadLibrary();
}

TEST(QDDynamicLib, FailedLoadUnloadsWhatWasThere)
{
    struct Case
    {
        const char* m_Name;
        bool m_IsPlugIn;
    };

    const Case cases[] = {{"plug-in", true}, {"system", false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDDynamicLib library;
        char error[512] = "";
        ASSERT_TRUE(library.LoadQDLibrary(kPlugInName, error, sizeof error)) << error;

        EXPECT_FALSE(c.m_IsPlugIn ? library.LoadQDLibrary("qd-none", error, sizeof error)
                                  : library.LoadOSLibrary("qd-none", 1, error, sizeof error));

        EXPECT_FALSE(IsPlugInInMemory());
        EXPECT_EQ(library.GetDynamicLibAddress(), nullptr);
        EXPECT_TRUE(library.GetPath().IsEmpty());
    }
}
