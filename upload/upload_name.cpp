// Upload naming: the timestamp read from `date` once the clock is
// synchronised, the renaming of an archive with it, and the WAN index rule
// shared by every upload.
#include <cstdio>
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"
#include "upload/upload.h"

namespace zq {

namespace {

constexpr char MONTH_NAMES[12][8] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int TIME_SYNCED = 2;
constexpr size_t TIME_STATUS_READ = 10;
constexpr size_t DATE_WORDS = 6;
constexpr size_t DATE_WORD_MAX = 9;
constexpr size_t MAX_BASE_NAME = 127;
constexpr size_t MAX_EXTENSION = 49;
constexpr size_t PATH_SIZE = 128;

enum : size_t { WEEKDAY, MONTH, DAY, HOUR, MINUTE, SECOND };

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The next blank-separated word of at most DATE_WORD_MAX characters, as
// scanf's "%9s" reads it: a longer word goes on as the next one.
std::string_view next_word(std::string_view &text) {
    size_t i = 0;
    while (i < text.size() && is_blank(text[i])) ++i;
    size_t j = i;
    while (j < text.size() && j - i < DATE_WORD_MAX && !is_blank(text[j])) ++j;
    std::string_view word = zq::slice(text, i, j);
    text.remove_prefix(j);
    return word;
}

bool is_number_word(std::string_view word) {
    return !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos;
}

} // namespace

int is_time_synced() {
    FILE *file = fopen(ZQ_TIME_STATUS_PATH, "r");
    if (!file) return 0;
    char text[TIME_STATUS_READ + 1] = {};
    const size_t n = fread(text, 1, TIME_STATUS_READ, file);
    fclose(file);
    return zq::read_number(__func__, ZQ_TIME_STATUS_PATH, std::string_view(text, n)) == TIME_SYNCED ? 1 : 0;
}

int zq_get_month_num(const char *name) {
    const std::string_view wanted = zq::view(name);
    for (size_t i = 0; i < sizeof(MONTH_NAMES) / sizeof(MONTH_NAMES[0]); ++i)
        if (wanted == zq::view(MONTH_NAMES[i])) return static_cast<int>(i) + 1;
    ZQ_LOG("error zq_get_month_num is running!!");
    return 0;
}

int timestamp_from_date(std::string_view date, char (&out)[ZQ_TIMESTAMP_SIZE]) {
    // A zone name that starts with G (GMT) and everything after it is
    // dropped; the colons of the time separate words like blanks.
    date = zq::slice(date, 0, date.find('G'));
    std::string_view words[DATE_WORDS];
    char scratch[ZQ_TIMESTAMP_SIZE] = {};
    zq::copy(scratch, date);
    for (char &c : scratch)
        if (c == ':') c = ' ';
    std::string_view rest = zq::view(scratch);
    for (std::string_view &word : words) word = next_word(rest);

    char month[DATE_WORD_MAX + 1] = {};
    zq::copy(month, words[MONTH]);
    const int number = zq_get_month_num(month);
    if (number < 1 || number > 12) return -1;
    // Day, hour and minute become part of a file name and of a command.
    for (size_t i : {DAY, HOUR, MINUTE}) {
        if (!is_number_word(words[i])) {
            ZQ_LOG_AS("zq_get_timestamps", "refused date: not a plain time");
            return -1;
        }
    }
    char stamp[ZQ_TIMESTAMP_SIZE] = {};
    ZQ_FORMAT(stamp, "%d%.*s%.*s%.*s", number, static_cast<int>(words[DAY].size()), words[DAY].data(),
              static_cast<int>(words[HOUR].size()), words[HOUR].data(),
              static_cast<int>(words[MINUTE].size()), words[MINUTE].data());
    zq::copy(out, zq::view(stamp));
    return 0;
}

int zq_get_timestamps(char *out) {
    if (!out) return -1;
    if (!is_time_synced()) {
        ZQ_LOG("%s", upload_log::CLOCK_UNSYNCED);
        return -1;
    }
    char date[ZQ_TIMESTAMP_SIZE] = {};
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args("date", sizeof("date"), date, sizeof(date)));
    if (date[0] == '\0') {
        ZQ_LOG("cannot find date");
        return -1;
    }
    char stamp[ZQ_TIMESTAMP_SIZE] = {};
    if (timestamp_from_date(zq::view(date), stamp) != 0) return -1;
    memcpy(out, stamp, sizeof(stamp));
    return 0;
}

int stamped_path(std::string_view source, std::string_view timestamp, uint32_t mode, uint64_t max_len,
                 char *dst) {
    zq::copy(dst, PATH_SIZE, source);
    if (timestamp.empty() || mode == 0) return -1;

    const size_t slash = source.rfind('/');
    const size_t dir_length = slash == std::string_view::npos ? 0 : slash + 1;
    std::string_view base = zq::slice(zq::slice(source, dir_length), 0, MAX_BASE_NAME);
    const size_t length = base.size();
    std::string_view extension;
    if (const size_t dot = base.find('.'); dot != std::string_view::npos) {
        extension = zq::slice(base, dot, dot + MAX_EXTENSION);
        base = zq::slice(base, 0, dot);
    }
    if (max_len <= length) {
        ZQ_LOG_AS("zq_rename_file_name", "length of filename is too short !!");
        return -1;
    }
    // A stamp that leaves no room for the extension would make a name
    // longer than max_len - 1 characters; such a stamp is refused.
    if (max_len < timestamp.size() + extension.size() + 1) {
        ZQ_LOG_AS("zq_rename_file_name", "length of timestamp is too long !!");
        return -1;
    }
    const std::string_view prefix =
        zq::slice(base, 0, static_cast<size_t>(max_len) - timestamp.size() - extension.size() - 1);
    const std::string_view first = mode == 2 ? prefix : timestamp;
    const std::string_view second = mode == 2 ? timestamp : prefix;
    char renamed[PATH_SIZE] = {};
    const int n = ZQ_FORMAT(renamed, "%.*s%.*s%.*s%.*s", static_cast<int>(dir_length), source.data(),
                            static_cast<int>(first.size()), first.data(), static_cast<int>(second.size()),
                            second.data(), static_cast<int>(extension.size()), extension.data());
    if (n < 0 || static_cast<size_t>(n) >= sizeof(renamed)) {
        ZQ_LOG_AS("zq_rename_file_name", "refused dst: longer than %zu bytes", sizeof(renamed) - 1);
        return -1;
    }
    zq::copy(dst, PATH_SIZE, zq::view(renamed));
    return 0;
}

int zq_rename_file_name(const char *src, char *dst, const char *stamp, uint32_t mode, uint64_t max_len) {
    if (!src || !dst || !zq::file_exists(src)) {
        ZQ_LOG("cannot find src_file !!");
        return -1;
    }
    char renamed[PATH_SIZE] = {};
    if (stamped_path(zq::view(src), zq::view(stamp), mode, max_len, renamed) != 0) {
        zq::copy(dst, PATH_SIZE, zq::view(renamed));
        return -1;
    }
    // Both paths go into a command: plain words only, and the whole command
    // must fit, or the file keeps its name.
    char cmd[200] = {};
    if (!accept_upload_word(__func__, upload_word::local_path, "src", zq::view(src)) ||
        !accept_upload_word(__func__, upload_word::local_path, "dst", zq::view(renamed)) ||
        !ZQ_FORMAT_CMD(cmd, "mv %s %s", src, renamed)) {
        zq::copy(dst, PATH_SIZE, zq::view(src));
        return -1;
    }
    zq::copy(dst, PATH_SIZE, zq::view(renamed));
    zq_system(cmd);
    return 0;
}

int get_wan_index(uint8_t mask) {
    for (int bit = 0; bit < 8; ++bit)
        if (mask & (1u << bit)) return bit + 1;
    return 0;
}

} // namespace zq
