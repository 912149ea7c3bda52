#include <QDPlatform/QDTextLocation.h>

#include <QDPlatform/QDString.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

static_assert(!std::is_copy_constructible_v<CQDTextLocationSourceName>);
static_assert(!std::is_copy_assignable_v<CQDTextLocationSourceName>);
static_assert(!std::is_destructible_v<CQDTextLocationSourceName>, "only Release ends it");
static_assert(!std::is_polymorphic_v<CQDTextLocationSourceName> && !std::is_polymorphic_v<CQDTextLocation>);
static_assert(sizeof(CQDTextLocationSourceName) == sizeof(std::string) + alignof(std::string), "the name, the count");
static_assert(sizeof(CQDTextLocation) == 4 * 4 + sizeof(void*));
static_assert(std::is_nothrow_move_constructible_v<CQDTextLocation>);
static_assert(std::is_nothrow_move_assignable_v<CQDTextLocation>);

namespace
{

// Set while a test waits for one object to be deleted.
const void* g_Watched = nullptr;
int g_WatchedDeletions = 0;

void FreeWatched(void* memory)
{
    if (memory != nullptr && memory == g_Watched) {
        ++g_WatchedDeletions;
        g_Watched = nullptr; // the place may be used again
    }
    std::free(memory);
}

} // namespace

void* operator new(std::size_t size)
{
    void* memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept
{
    FreeWatched(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    FreeWatched(memory);
}

namespace
{

// A source name whose end can be seen. Does not hold a reference.
class WatchedName
{
public:
    explicit WatchedName(const char* name) : m_pName(new CQDTextLocationSourceName(name))
    {
        g_Watched = m_pName;
        g_WatchedDeletions = 0;
    }

    WatchedName(const WatchedName&) = delete;
    WatchedName& operator=(const WatchedName&) = delete;

    ~WatchedName() { g_Watched = nullptr; }

    CQDTextLocationSourceName* Get() const { return m_pName; }

    bool IsDeleted() const { return g_WatchedDeletions != 0; }

private:
    CQDTextLocationSourceName* m_pName;
};

std::string Print(const CQDTextLocation& location)
{
    char buffer[512];
    const int length = location.PrintLocation(buffer);
    EXPECT_EQ(static_cast<std::size_t>(length), std::strlen(buffer));
    return buffer;
}

void Advance(CQDTextLocation& location, const char* text)
{
    for (; *text != '\0'; ++text)
        location.IncrementByCodePoint(static_cast<unsigned char>(*text));
}

// Line, column and index in one text that tests compare.
std::string Position(const CQDTextLocation& location)
{
    return std::to_string(location.GetLine()) + ":" + std::to_string(location.GetColumn()) + " @" +
           std::to_string(location.GetIndexInLine());
}

} // namespace

TEST(CQDTextLocationSourceName, KeepsTheName)
{
    auto* name = new CQDTextLocationSourceName("station.cfg");
    name->AddRef();

    EXPECT_EQ(name->GetName(), "station.cfg");

    name->Release();
}

TEST(CQDTextLocationSourceName, FieldsAreNameCount)
{
    auto* name = new CQDTextLocationSourceName("a");
    name->AddRef();
    name->AddRef();

    int32_t count = 0;
    std::memcpy(&count, reinterpret_cast<const unsigned char*>(name) + sizeof(std::string), sizeof count);

    EXPECT_EQ(static_cast<const void*>(&name->GetName()), name);
    EXPECT_EQ(count, 2);
    name->Release();
    name->Release();
}

TEST(CQDTextLocationSourceName, CountStartsAtZeroSoThatTheFirstReleaseAfterOneAddRefDeletes)
{
    const WatchedName name("a");
    name.Get()->AddRef();

    name.Get()->Release();

    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocationSourceName, OnlyTheLastReleaseDeletes)
{
    const WatchedName name("a");
    name.Get()->AddRef();
    name.Get()->AddRef();

    name.Get()->Release();
    const bool afterFirst = name.IsDeleted();
    name.Get()->Release();

    EXPECT_FALSE(afterFirst);
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, StartsAtLineOneColumnOneIndexZeroWithoutName)
{
    CQDTextLocation location;

    EXPECT_EQ(location.GetLine(), 1);
    EXPECT_EQ(location.GetColumn(), 1);
    EXPECT_EQ(location.GetIndexInLine(), 0);
    EXPECT_EQ(location.GetSourceNamePtr(), nullptr);
    EXPECT_EQ(location.GetSourceNameRef(), nullptr);
}

TEST(CQDTextLocation, FieldsAreTabWidthLineColumnIndexName)
{
    CQDTextLocation location(new CQDTextLocationSourceName("a"));
    Advance(location, "\n\nab\t");
    CQDTextLocationSourceName* name = location.GetSourceNameRef();

    struct
    {
        int32_t m_Numbers[4];
        const void* m_pName;
    } fields;

    static_assert(sizeof fields == sizeof location);
    std::memcpy(&fields, static_cast<const void*>(&location), sizeof fields);

    EXPECT_EQ(fields.m_Numbers[0], 4);
    EXPECT_EQ(fields.m_Numbers[1], 3);
    EXPECT_EQ(fields.m_Numbers[2], 5);
    EXPECT_EQ(fields.m_Numbers[3], 3);
    EXPECT_EQ(fields.m_pName, name);
    name->Release();
}

TEST(CQDTextLocation, ConstructorTakesAReferenceAndTheDestructorReleasesIt)
{
    const WatchedName name("a.txt");
    {
        const CQDTextLocation location(name.Get());

        EXPECT_EQ(Position(location), "1:1 @0");
        EXPECT_STREQ(location.GetSourceNamePtr(), "a.txt");
        EXPECT_FALSE(name.IsDeleted());
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, ConstructorTakesANullName)
{
    const CQDTextLocation location(nullptr);

    EXPECT_EQ(Position(location), "1:1 @0");
    EXPECT_EQ(location.GetSourceNamePtr(), nullptr);
}

TEST(CQDTextLocation, CopyHasThePositionAndSharesTheName)
{
    CQDTextLocation original(new CQDTextLocationSourceName("a"));
    Advance(original, "\nab\tc");

    const CQDTextLocation copy(original);

    EXPECT_EQ(Position(copy), "2:6 @4");
    EXPECT_EQ(copy.GetSourceNamePtr(), original.GetSourceNamePtr());
}

TEST(CQDTextLocation, DestroyedCopyLeavesTheNameToTheOthers)
{
    const WatchedName name("a");
    {
        const CQDTextLocation original(name.Get());
        {
            const CQDTextLocation copy(original);
        }
        EXPECT_FALSE(name.IsDeleted());
        EXPECT_STREQ(original.GetSourceNamePtr(), "a");
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, DestroyedOriginalLeavesTheNameToTheCopy)
{
    const WatchedName name("a");
    auto* original = new CQDTextLocation(name.Get());
    {
        const CQDTextLocation copy(*original);
        delete original;

        EXPECT_FALSE(name.IsDeleted());
        EXPECT_STREQ(copy.GetSourceNamePtr(), "a");
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, MoveConstructionTakesEverythingAndResetsTheOther)
{
    const WatchedName name("a");
    {
        CQDTextLocation original(name.Get());
        Advance(original, "\nab\tc");

        const CQDTextLocation moved(std::move(original));

        EXPECT_EQ(Position(moved), "2:6 @4");
        EXPECT_STREQ(moved.GetSourceNamePtr(), "a");
        EXPECT_EQ(Position(original), "1:1 @0");
        EXPECT_EQ(original.GetSourceNamePtr(), nullptr);
        EXPECT_FALSE(name.IsDeleted());
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, MoveAssignmentReleasesItsOwnNameAndTakesTheOthers)
{
    const WatchedName old("old");
    CQDTextLocation target(old.Get());
    CQDTextLocation source(new CQDTextLocationSourceName("new"));
    Advance(source, "\nab\tc");

    target = std::move(source);

    EXPECT_TRUE(old.IsDeleted());
    EXPECT_EQ(Position(target), "2:6 @4");
    EXPECT_STREQ(target.GetSourceNamePtr(), "new");
    EXPECT_EQ(Position(source), "1:1 @0");
    EXPECT_EQ(source.GetSourceNamePtr(), nullptr);
}

TEST(CQDTextLocation, MoveAssignmentKeepsTheCountOfTheTakenName)
{
    const WatchedName name("a");
    {
        CQDTextLocation target;
        {
            CQDTextLocation source(name.Get());

            target = std::move(source);
        }
        EXPECT_FALSE(name.IsDeleted());
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, MoveAssignmentBetweenHoldersOfOneNameLeavesOneReference)
{
    const WatchedName name("a");
    {
        CQDTextLocation target(name.Get());
        CQDTextLocation source(target);

        target = std::move(source);

        EXPECT_FALSE(name.IsDeleted());
        EXPECT_EQ(source.GetSourceNamePtr(), nullptr);
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, MoveAssignmentOntoItselfChangesNothing)
{
    CQDTextLocation location(new CQDTextLocationSourceName("a"));
    Advance(location, "\nab");
    CQDTextLocation& same = location;

    location = std::move(same);

    EXPECT_EQ(Position(location), "2:3 @2");
    EXPECT_STREQ(location.GetSourceNamePtr(), "a");
}

TEST(CQDTextLocation, CopyAssignmentReleasesItsOwnNameAndSharesTheOthers)
{
    const WatchedName old("old");
    CQDTextLocation target(old.Get());
    CQDTextLocation source(new CQDTextLocationSourceName("new"));
    Advance(source, "\nab\tc");

    target = source;

    EXPECT_TRUE(old.IsDeleted());
    EXPECT_EQ(Position(target), "2:6 @4");
    EXPECT_EQ(target.GetSourceNamePtr(), source.GetSourceNamePtr());
}

TEST(CQDTextLocation, CopyAssignmentTakesAReference)
{
    const WatchedName name("a");
    {
        CQDTextLocation target;
        {
            const CQDTextLocation source(name.Get());

            target = source;
        }
        EXPECT_FALSE(name.IsDeleted());
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, CopyAssignmentOfALocationWithoutNameReleasesTheName)
{
    const WatchedName name("a");
    CQDTextLocation target(name.Get());
    const CQDTextLocation source;

    target = source;

    EXPECT_TRUE(name.IsDeleted());
    EXPECT_EQ(target.GetSourceNamePtr(), nullptr);
}

TEST(CQDTextLocation, CopyAssignmentBetweenHoldersOfOneNameCopiesThePosition)
{
    const WatchedName name("a");
    {
        CQDTextLocation target(name.Get());
        CQDTextLocation source(target);
        Advance(source, "\nab\tc");

        target = source;

        EXPECT_EQ(Position(target), "2:6 @4");
        EXPECT_FALSE(name.IsDeleted());
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, CopyAssignmentOntoItselfKeepsTheNameOfItsOnlyHolder)
{
    const WatchedName name("a");
    CQDTextLocation location(name.Get());
    CQDTextLocation& same = location;

    location = same;

    EXPECT_FALSE(name.IsDeleted());
    EXPECT_STREQ(location.GetSourceNamePtr(), "a");
}

TEST(CQDTextLocation, SetSourceNameReleasesTheOldNameAndKeepsThePosition)
{
    const WatchedName old("old");
    CQDTextLocation location(old.Get());
    Advance(location, "\nab");

    location.SetSourceName(new CQDTextLocationSourceName("new"));

    EXPECT_TRUE(old.IsDeleted());
    EXPECT_STREQ(location.GetSourceNamePtr(), "new");
    EXPECT_EQ(Position(location), "2:3 @2");
}

TEST(CQDTextLocation, SetSourceNameTakesAReference)
{
    const WatchedName name("a");
    {
        CQDTextLocation location;
        location.SetSourceName(name.Get());
        EXPECT_FALSE(name.IsDeleted());
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, SetSourceNameToNullReleasesTheName)
{
    const WatchedName name("a");
    CQDTextLocation location(name.Get());

    location.SetSourceName(nullptr);

    EXPECT_TRUE(name.IsDeleted());
    EXPECT_EQ(location.GetSourceNamePtr(), nullptr);
}

TEST(CQDTextLocation, SetSourceNameToTheNameOfItsOnlyHolderKeepsIt)
{
    const WatchedName name("a");
    {
        CQDTextLocation location(name.Get());

        location.SetSourceName(name.Get());

        ASSERT_FALSE(name.IsDeleted());
        EXPECT_STREQ(location.GetSourceNamePtr(), "a");
    }
    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, GetSourceNameReplacesTheText)
{
    const CQDTextLocation location(new CQDTextLocationSourceName("a.txt"));
    std::string name = "before";

    location.GetSourceName(name);

    EXPECT_EQ(name, "a.txt");
}

TEST(CQDTextLocation, GetSourceNameWithoutNameClearsTheText)
{
    const CQDTextLocation location;
    std::string name = "before";

    location.GetSourceName(name);

    EXPECT_EQ(name, "");
}

TEST(CQDTextLocation, GetSourceNameRefGivesTheCallerAReference)
{
    const WatchedName name("a");
    CQDTextLocationSourceName* reference = nullptr;
    {
        CQDTextLocation location(name.Get());
        reference = location.GetSourceNameRef();
    }
    ASSERT_EQ(reference, name.Get());
    EXPECT_FALSE(name.IsDeleted());

    reference->Release();

    EXPECT_TRUE(name.IsDeleted());
}

TEST(CQDTextLocation, ResetKeepsTheName)
{
    CQDTextLocation location(new CQDTextLocationSourceName("a"));
    Advance(location, "\nab");

    location.Reset();

    EXPECT_EQ(Position(location), "1:1 @0");
    EXPECT_STREQ(location.GetSourceNamePtr(), "a");
}

TEST(CQDTextLocation, IncrementByCodePointFollowsLinesAndTabs)
{
    static const struct
    {
        const char* m_Name;
        const char* m_Text;
        const char* m_Position;
    } kCases[] = {
        {"letter", "a", "1:2 @1"},
        {"line feed", "\n", "2:1 @0"},
        {"line feed after text", "ab\n", "2:1 @0"},
        {"two line feeds", "\n\n", "3:1 @0"},
        {"tab from column 1", "\t", "1:5 @1"},
        {"tab from column 2", "a\t", "1:5 @2"},
        {"tab from column 3", "ab\t", "1:5 @3"},
        {"tab from column 4", "abc\t", "1:5 @4"},
        {"tab from column 5", "abcd\t", "1:9 @5"},
        {"tab from column 8", "abcdefg\t", "1:9 @8"},
        {"two tabs", "\t\t", "1:9 @2"},
        {"a, tab, b", "a\tb", "1:6 @3"},
        {"carriage return takes a column", "a\r", "1:3 @2"},
        {"a, CR, LF", "a\r\n", "2:1 @0"},
        {"vertical tab and form feed", "\v\f", "1:3 @2"},
        {"text after line feed", "abc\nde", "2:3 @2"},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        CQDTextLocation location;

        Advance(location, c.m_Text);

        EXPECT_EQ(Position(location), c.m_Position);
    }
}

TEST(CQDTextLocation, OtherLineEndsAndWideCodePointsTakeOneColumn)
{
    CQDTextLocation location;

    for (const int cp : {0x0, 0x85, 0x2028, 0x2029, 0x4E2D, 0x1F600, 0x10FFFF, -1})
        location.IncrementByCodePoint(cp);

    EXPECT_EQ(Position(location), "1:9 @8");
}

TEST(CQDTextLocation, IncrementByOffsetMovesColumnAndIndex)
{
    CQDTextLocation location;
    Advance(location, "\n\t");

    location.IncrementByOffset(10);

    EXPECT_EQ(Position(location), "2:15 @11");
}

TEST(CQDTextLocation, IncrementByOffsetTakesZeroAndNegativeOffsets)
{
    CQDTextLocation location;
    location.IncrementByOffset(5);

    location.IncrementByOffset(0);
    location.IncrementByOffset(-3);

    EXPECT_EQ(Position(location), "1:3 @2");
}

TEST(CQDTextLocation, CountersWrap)
{
    CQDTextLocation location;
    location.IncrementByOffset(INT_MAX - 1);

    location.IncrementByCodePoint('a');

    EXPECT_EQ(location.GetColumn(), INT_MIN);
    EXPECT_EQ(location.GetIndexInLine(), INT_MAX);
    location.IncrementByCodePoint('\t'); // INT_MIN - 1 wraps to 0x7FFFFFFF, 3 modulo 4: one column to the stop
    EXPECT_EQ(location.GetColumn(), INT_MIN + 1);
    EXPECT_EQ(location.GetIndexInLine(), INT_MIN);
}

TEST(CQDTextLocation, PrintLocationWithoutNameSaysNoFile)
{
    EXPECT_EQ(Print(CQDTextLocation()), "NoFile(1,1)");
}

TEST(CQDTextLocation, PrintLocationPrintsNameLineAndColumn)
{
    CQDTextLocation location(new CQDTextLocationSourceName("cfg/100%s.txt"));
    Advance(location, "a\n\n\tb");

    EXPECT_EQ(Print(location), "cfg/100%s.txt(3,6)");
}

TEST(CQDTextLocation, PrintLocationReturnsTheLength)
{
    const CQDTextLocation location;
    char buffer[512];

    EXPECT_EQ(location.PrintLocation(buffer), 11);
}

TEST(CQDTextLocation, PrintLocationFillsTheBufferToTheLastByte)
{
    const CQDTextLocation location(new CQDTextLocationSourceName(std::string(506, 'n')));
    char buffer[512];
    std::memset(buffer, '#', sizeof buffer);

    EXPECT_EQ(location.PrintLocation(buffer), 511);

    EXPECT_EQ(buffer, std::string(506, 'n') + "(1,1)");
}

TEST(CQDTextLocation, PrintLocationCutsALongNameAt511Bytes)
{
    const CQDTextLocation location(new CQDTextLocationSourceName(std::string(507, 'n')));
    char buffer[513];
    std::memset(buffer, '#', sizeof buffer);

    EXPECT_EQ(location.PrintLocation(buffer), 0x7FFFFFFF);

    EXPECT_EQ(buffer, std::string(507, 'n') + "(1,1");
    EXPECT_EQ(buffer[512], '#');
}
