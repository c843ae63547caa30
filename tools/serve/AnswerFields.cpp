#include "tools/serve/AnswerFields.h"

#include <ctime>

char const* httpDate() {
    thread_local std::time_t second = -1;
    thread_local char text[30] = "";
    std::time_t const now = std::time(nullptr);
    if (now != second) {
        std::tm parts{};
        ::gmtime_r(&now, &parts);
        // The names of days and months are English: the programs set no locale.
        std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
        second = now;
    }
    return text;
}
