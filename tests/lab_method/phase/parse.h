// The configuration parser that the library exports, with a table that has an entry of each kind.
#pragma once

#include <string>
#include <utility>
#include <vector>

// Parses text, null or not, against the keywords
//   a    an integer             b  a text            c  an integer from 0 to 10, which is counted
//   d    a long integer         max_snapshots        an integer from 1 to 10
// which hold 77 and no text before. options are six digits, one for each option in their order, or
// null for the defaults. Gives "status", and a "field" NAME=VALUE for each keyword and for the
// count.
std::vector<std::pair<std::string, std::string>> parse_result(void *library, const char *options,
                                                              const char *text);
