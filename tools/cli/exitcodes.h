#ifndef VELA_CLI_EXITCODES_H
#define VELA_CLI_EXITCODES_H

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
        // A run stopped by SIGINT or SIGTERM: 128 and the signal's number,
        // as shells report it.
        Interrupted = 130,
        Terminated = 143,
    };

    // One line per code, for --help.
    static QString table();
};

#endif
