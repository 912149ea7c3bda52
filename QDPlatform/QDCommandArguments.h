#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDString.h>

#include <list>
#include <string>

// The command line of the process as a list of options and values, read one after the other.
//
//     CQDCommandArguments arguments;
//     if (arguments.ReadArguments(argc, argv))
//         while (const CQDCommandArguments::CommandArgument* argument = arguments.GetNextArgument())
//
// Thread: one at a time; GetNextArgument() too changes the object.
class QD_API CQDCommandArguments
{
public:
    enum ArgumentKind : int
    {
        ArgumentValue = 0,
        ArgumentOption = 1
    };

    struct CommandArgument
    {
        ArgumentKind m_Kind;
        std::string m_Text; // of an option without its first "-": "port" for -port, "-port" for --port
    };

    // No arguments; the read position is at their end.
    CQDCommandArguments();
    CQDCommandArguments(const CQDCommandArguments&) = delete;
    CQDCommandArguments& operator=(const CQDCommandArguments&) = delete;
    ~CQDCommandArguments();

    // Adds argv[1] to argv[argc - 1], each cut to its first 1024 bytes, behind the arguments that are there already,
    // and moves the read position to the first argument of all. Returns false at the first that AddArgument() refuses:
    // those before it stay, and the read position does not move. No arguments are a success.
    bool ReadArguments(int argc, char** argv);

    // Adds one argument of `length` bytes at `text`: an option when it begins with "-", else a value, an empty one too.
    // The read position does not move, so that while it is at the end, GetNextArgument() does not return the argument.
    // A lone "-" is refused: returns false, and "Error: Argument #%d invalid" with `number`, which serves for nothing
    // else, goes to standard output without a line end. It is written in wide characters, so nothing comes out once
    // stdout has been used for bytes, and the other way round (fwide(3)).
    bool AddArgument(int number, const qdchar* text, unsigned int length);

    // The number of arguments read or added so far, without refused ones.
    int GetCount() const;

    // The argument at the read position, which moves on, or null at the end. Valid as long as this object.
    const CommandArgument* GetNextArgument() const;

private:
    std::list<CommandArgument> m_Arguments;
    mutable std::list<CommandArgument>::const_iterator m_Position;
};
