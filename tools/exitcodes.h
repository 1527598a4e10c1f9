#ifndef VELA_TOOLS_EXITCODES_H
#define VELA_TOOLS_EXITCODES_H

#include <QString>

// The exit codes of every vela-power command, in one table that --help
// prints and that every command, including its command-line errors, uses.
class ExitCodes
{
public:
    enum Code {
        Success = 0,
        Problems = 1,
        InvalidInput = 2,
    };

    // One line per code, for --help.
    static QString table();
};

#endif
