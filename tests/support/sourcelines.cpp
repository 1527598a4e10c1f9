#include "sourcelines.h"

#include <fstream>

int sourceLineOf(const std::string& file, const std::string& fragment)
{
    std::ifstream in(std::string(VELA_SOURCE_DIR) + "/" + file);
    std::string text;
    for (int line = 1; std::getline(in, text); ++line) {
        if (text.find(fragment) != std::string::npos)
            return line;
    }
    return 0;
}
