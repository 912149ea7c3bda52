#include <QDPlatform/QDWildcard.h>

#include <cstddef>

// Only the last star need be remembered: when the rest of the pattern fails, that star takes one byte more. An earlier
// star taking more would leave the later ones less of the name, and so could not match where this one did not.
bool qd_wildcard_matches(std::string_view pattern, std::string_view name)
{
    std::size_t patternIndex = 0;
    std::size_t nameIndex = 0;
    std::size_t behindStar = std::string_view::npos; // in the pattern; npos before the first star
    std::size_t starEnd = 0;                         // in the name: behind the bytes that the star takes
    while (nameIndex < name.size()) {
        if (patternIndex < pattern.size() && pattern[patternIndex] == '*') {
            behindStar = ++patternIndex;
            starEnd = nameIndex;
        } else if (patternIndex < pattern.size() &&
                   (pattern[patternIndex] == '?' || pattern[patternIndex] == name[nameIndex])) {
            ++patternIndex;
            ++nameIndex;
        } else if (behindStar != std::string_view::npos) {
            patternIndex = behindStar;
            nameIndex = ++starEnd;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', patternIndex) == std::string_view::npos;
}
