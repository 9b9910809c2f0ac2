// Reads rows of a SQLite file the way an operator would check them.
#pragma once

#include <string>
#include <vector>

namespace dstest {

// Each row as its columns joined by '|'; empty when the file or table is missing.
std::vector<std::string> sqlite_rows(const std::string &path, const std::string &query);
// Runs statements on the file (for preparing databases in tests).
bool sqlite_exec(const std::string &path, const std::string &statements);

} // namespace dstest
