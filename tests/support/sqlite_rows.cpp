#include "support/sqlite_rows.h"

#include <sqlite3.h>

namespace dstest {

std::vector<std::string> sqlite_rows(const std::string &path, const std::string &query)
{
    std::vector<std::string> rows;
    sqlite3 *conn = nullptr;
    if (sqlite3_open_v2(path.c_str(), &conn, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(conn);
        return rows;
    }
    sqlite3_busy_timeout(conn, 5000);
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(conn, query.c_str(), -1, &st, nullptr) == SQLITE_OK) {
        while (sqlite3_step(st) == SQLITE_ROW) {
            std::string row;
            for (int i = 0; i < sqlite3_column_count(st); ++i) {
                if (i > 0)
                    row += "|";
                const unsigned char *t = sqlite3_column_text(st, i);
                row += t != nullptr ? reinterpret_cast<const char *>(t) : "NULL";
            }
            rows.push_back(row);
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(conn);
    return rows;
}

bool sqlite_exec(const std::string &path, const std::string &statements)
{
    sqlite3 *conn = nullptr;
    bool ok = sqlite3_open(path.c_str(), &conn) == SQLITE_OK &&
              sqlite3_exec(conn, statements.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(conn);
    return ok;
}

} // namespace dstest
