#include "base/io_module.hpp"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace lyrt {

int n_proc = 1;
int my_proc = 0;
bool i_am_master = true;

int report_unit = 12;
int error_unit = 13;
int timing_unit = 14;
int cont_unit = 15;
int pos_unit = 16;
int vel_unit = 17;
int for_unit = 18;
int ene_unit = 19;
int eig_unit = 20;
int wfs_unit = 21;
int eloc_unit = 22;
int kpt_unit = 23;
int xyz_unit = 24;
int debug = 0;

data_file_names_type data_file_names;

namespace {

struct unit_record {
    std::FILE* fp = nullptr;
    std::string name;
    bool direct = false;
    int recl = 0;
    bool at_end = true;     // position is at the end of the file
    bool hit_eof = false;   // the last read met the end of file
    bool last_write = true; // last transfer was a write (stdio needs a seek between modes)
};

std::map<int, unit_record>& table() {
    static std::map<int, unit_record> t;
    return t;
}

bool is_standard(int unit) {
    return unit == 0 || unit == 5 || unit == 6;
}

std::FILE* standard_stream(int unit) {
    if (unit == 0) return stderr;
    if (unit == 5) return stdin;
    return stdout;
}

unit_record* find(int unit) {
    auto& t = table();
    auto it = t.find(unit);
    return it == t.end() ? nullptr : &it->second;
}

bool file_exists(const std::string& name) {
    struct stat st;
    return ::stat(name.c_str(), &st) == 0;
}

// A write to a unit nobody opened goes to fort.<n>.
unit_record* connected_for_write(int unit) {
    unit_record* u = find(unit);
    if (u == nullptr) {
        unit_open(unit, "fort." + std::to_string(unit));
        u = find(unit);
    }
    return u;
}

void switch_mode(unit_record& u, bool write) {
    if (u.last_write != write) std::fseek(u.fp, 0, SEEK_CUR);
    u.last_write = write;
}

void date_and_time(std::string& date, std::string& time) {
    std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    char d[64], h[64];
    std::snprintf(d, sizeof d, "%02d/%02d/%02d", t.tm_mon + 1, t.tm_mday, t.tm_year % 100);
    std::snprintf(h, sizeof h, "%02d:%02d", t.tm_hour, t.tm_min);
    date = d;
    time = h;
}

const char* const banner[14] = {
    "    ###          ###     ###   #########     ###########",
    "    ###           ###   ###    ##########    ###########",
    "    ###            ### ###     ###     ###       ###",
    "    ###             #####      ###     ###       ###",
    "    ###              ###       ###     ###       ###",
    "    ###              ###       ##########        ###",
    "    ###              ###       #########         ###",
    "    ###              ###       ###  ###          ###",
    "    ###              ###       ###   ###         ###",
    "    ###              ###       ###    ###        ###",
    "    ###              ###       ###     ###       ###",
    "    ###              ###       ###     ###       ###",
    "    ###########      ###       ###     ###       ###",
    "    ###########      ###       ###     ###       ###",
};

} // namespace

const char* const* banner_lines() {
    return banner;
}

int unit_open(int unit, const std::string& file, std::string_view status, std::string_view position,
              std::string_view access, int recl) {
    if (is_standard(unit)) return 0;
    if (find(unit) != nullptr) unit_close(unit);
    // Only process 0 writes the run's files: any other process of a distributed run
    // that opens a file to write gets a sink, so that each file is written once and
    // never truncated behind process 0's back. Files opened "old" are read by all.
    const bool append = position == "append" || position == "APPEND";
    const bool sink = !i_am_master && (!(status == "old" || status == "OLD") || append);
    std::FILE* fp = nullptr;
    if (sink) {
        fp = std::fopen("/dev/null", "w+");
    } else {
        // A directory of that name is no file to read or write.
        struct stat info {};
        if (::stat(file.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return EISDIR;
        bool exists = file_exists(file);
        const char* mode = nullptr;
        if (status == "replace" || status == "REPLACE") {
            mode = "w+";
        } else if (status == "old" || status == "OLD") {
            if (!exists) return ENOENT;
            mode = "r+";
        } else if (status == "new" || status == "NEW") {
            if (exists) return EEXIST;
            mode = "w+";
        } else {
            mode = exists ? "r+" : "w+";
        }
        fp = std::fopen(file.c_str(), mode);
        if (fp == nullptr && std::string_view(mode) == "r+") fp = std::fopen(file.c_str(), "r");
    }
    if (fp == nullptr) return errno != 0 ? errno : EIO;
    unit_record u;
    u.fp = fp;
    u.name = file;
    u.direct = access == "direct" || access == "DIRECT";
    u.recl = recl;
    if (append) {
        std::fseek(fp, 0, SEEK_END);
        u.at_end = true;
    } else {
        std::fseek(fp, 0, SEEK_END);
        u.at_end = std::ftell(fp) == 0;
        std::fseek(fp, 0, SEEK_SET);
    }
    table()[unit] = u;
    return 0;
}

void append_records(const std::string& file, std::initializer_list<std::string_view> records) {
    std::FILE* fp = std::fopen(file.c_str(), "a");
    if (fp == nullptr) return;
    for (std::string_view r : records) {
        std::fwrite(r.data(), 1, r.size(), fp);
        std::fputc('\n', fp);
    }
    std::fclose(fp);
}

void unit_close(int unit) {
    if (is_standard(unit)) {
        std::fflush(standard_stream(unit));
        return;
    }
    auto& t = table();
    auto it = t.find(unit);
    if (it == t.end()) return;
    std::fclose(it->second.fp);
    t.erase(it);
}

bool unit_is_open(int unit) {
    return is_standard(unit) || find(unit) != nullptr;
}

std::string unit_file_name(int unit) {
    unit_record* u = find(unit);
    return u == nullptr ? std::string() : u->name;
}

std::string unit_access(int unit) {
    unit_record* u = find(unit);
    return u != nullptr && u->direct ? "DIRECT" : "SEQUENTIAL";
}

std::string unit_form(int unit) {
    unit_record* u = find(unit);
    return u != nullptr && u->direct ? "UNFORMATTED" : "FORMATTED";
}

int unit_recl(int unit) {
    unit_record* u = find(unit);
    return u == nullptr ? 0 : u->recl;
}

void unit_write(int unit, std::string_view record) {
    if (is_standard(unit)) {
        // Progress text on standard output comes from process 0 alone.
        if (unit == stdout_unit && !i_am_master) return;
        std::FILE* f = standard_stream(unit);
        std::fwrite(record.data(), 1, record.size(), f);
        std::fputc('\n', f);
        return;
    }
    unit_record* u = connected_for_write(unit);
    if (u == nullptr) return;
    switch_mode(*u, true);
    std::fwrite(record.data(), 1, record.size(), u->fp);
    std::fputc('\n', u->fp);
    u->hit_eof = false;
    if (!u->at_end) {
        // A sequential write ends the file after the record written.
        std::fflush(u->fp);
        if (::ftruncate(fileno(u->fp), std::ftell(u->fp)) != 0) return;
        u->at_end = true;
    }
}

int unit_read(int unit, std::string& record) {
    record.clear();
    std::FILE* fp = nullptr;
    unit_record* u = nullptr;
    if (is_standard(unit)) {
        fp = standard_stream(unit);
    } else {
        u = find(unit);
        if (u == nullptr) return EBADF;
        switch_mode(*u, false);
        fp = u->fp;
    }
    int c;
    bool any = false;
    while ((c = std::fgetc(fp)) != EOF) {
        any = true;
        if (c == '\n') break;
        record += static_cast<char>(c);
    }
    // Records of files written with Windows line ends read the same.
    if (!record.empty() && record.back() == '\r') record.pop_back();
    if (u != nullptr) {
        if (!any) {
            u->hit_eof = true;
            u->at_end = true;
            return -1;
        }
        u->at_end = std::feof(fp) != 0;
    }
    if (!any) return -1;
    if (std::ferror(fp)) return EIO;
    return 0;
}

void unit_rewind(int unit) {
    unit_record* u = find(unit);
    if (u == nullptr) return;
    std::fflush(u->fp);
    std::rewind(u->fp);
    std::fseek(u->fp, 0, SEEK_END);
    u->at_end = std::ftell(u->fp) == 0;
    std::rewind(u->fp);
    u->hit_eof = false;
}

void unit_backspace(int unit) {
    unit_record* u = find(unit);
    if (u == nullptr || u->direct) return;
    std::fflush(u->fp);
    if (u->hit_eof) {
        // Backspacing over the end of file leaves the position at the end.
        u->hit_eof = false;
        std::fseek(u->fp, 0, SEEK_END);
        u->at_end = true;
        return;
    }
    long pos = std::ftell(u->fp);
    if (pos <= 0) return;
    // Step over the line end of the previous record, then back to the line end before it.
    long p = pos - 1;
    std::fseek(u->fp, p, SEEK_SET);
    if (std::fgetc(u->fp) != '\n') ++p;
    while (p > 0) {
        std::fseek(u->fp, p - 1, SEEK_SET);
        if (std::fgetc(u->fp) == '\n') break;
        --p;
    }
    std::fseek(u->fp, p, SEEK_SET);
    u->last_write = false;
    u->at_end = false;
}

int unit_write_direct(int unit, long rec, const void* data, std::size_t n_bytes) {
    unit_record* u = find(unit);
    if (u == nullptr || !u->direct) return EBADF;
    if (rec < 1 || static_cast<long>(n_bytes) > u->recl) return EINVAL;
    if (std::fseek(u->fp, (rec - 1) * static_cast<long>(u->recl), SEEK_SET) != 0) return EIO;
    if (std::fwrite(data, 1, n_bytes, u->fp) != n_bytes) return EIO;
    u->last_write = true;
    return 0;
}

int unit_read_direct(int unit, long rec, void* data, std::size_t n_bytes) {
    unit_record* u = find(unit);
    if (u == nullptr || !u->direct) return EBADF;
    if (rec < 1 || static_cast<long>(n_bytes) > u->recl) return EINVAL;
    std::fflush(u->fp);
    if (std::fseek(u->fp, (rec - 1) * static_cast<long>(u->recl), SEEK_SET) != 0) return EIO;
    if (std::fread(data, 1, n_bytes, u->fp) != n_bytes) return -1;
    u->last_write = false;
    return 0;
}

void write_fmt(int unit, std::string_view format, std::span<const fitem> items) {
    std::string text = format_items(format, items);
    std::size_t start = 0;
    for (;;) {
        std::size_t nl = text.find('\n', start);
        if (nl == std::string::npos) {
            unit_write(unit, std::string_view(text).substr(start));
            return;
        }
        unit_write(unit, std::string_view(text).substr(start, nl - start));
        start = nl + 1;
    }
}

void write_free(int unit, std::span<const fitem> items) {
    unit_write(unit, free_form(items));
}

std::vector<std::string> free_form_items(std::string_view record) {
    std::vector<std::string> items;
    std::string cur;
    bool in_item = false;
    for (char c : record) {
        if (c == ' ' || c == ',' || c == '\t') {
            if (in_item) items.push_back(cur);
            cur.clear();
            in_item = false;
        } else {
            cur += c;
            in_item = true;
        }
    }
    if (in_item) items.push_back(cur);
    return items;
}

namespace {

// Reads records until n items are collected; convert(item, k) stores item k.
template <class Convert>
int read_free(int unit, std::size_t n, Convert convert) {
    std::size_t k = 0;
    std::string record;
    while (k < n) {
        const int ios = unit_read(unit, record);
        if (ios != 0) return ios;
        for (const std::string& item : free_form_items(record)) {
            if (k == n) break;
            if (!convert(item, k)) return EINVAL;
            ++k;
        }
    }
    return 0;
}

bool to_real(std::string item, double& v) {
    for (char& c : item)
        if (c == 'd' || c == 'D' || c == 'q' || c == 'Q') c = 'E';
    char* end = nullptr;
    v = std::strtod(item.c_str(), &end);
    // NaN, infinities and values beyond the double range are no numbers of an input.
    return !item.empty() && end != nullptr && *end == '\0' && std::isfinite(v);
}

} // namespace

int read_free_reals(int unit, std::span<double> values) {
    return read_free(unit, values.size(), [&](const std::string& item, std::size_t k) {
        return to_real(item, values[k]);
    });
}

int read_free_ints(int unit, std::span<int> values) {
    return read_free(unit, values.size(), [&](const std::string& item, std::size_t k) {
        char* end = nullptr;
        errno = 0;
        const long v = std::strtol(item.c_str(), &end, 10);
        values[k] = static_cast<int>(v);
        return end != nullptr && *end == '\0' && errno == 0 && v >= INT_MIN && v <= INT_MAX;
    });
}

int read_free_logicals(int unit, std::span<bool> values) {
    return read_free(unit, values.size(), [&](const std::string& item, std::size_t k) {
        std::size_t p = item[0] == '.' ? 1 : 0;
        if (p >= item.size()) return false;
        const char c = static_cast<char>(std::toupper(static_cast<unsigned char>(item[p])));
        values[k] = c == 'T';
        return c == 'T' || c == 'F';
    });
}

void open_units() {
    unit_open(report_unit, "OUTLYRT", "replace");
    unit_open(error_unit, "ERRLYRT", "replace");
    unit_open(timing_unit, "timings", "replace");
    write_unit_info();
}

void write_unit_info() {
    std::string date, time;
    date_and_time(date, time);
    const std::pair<int, const char*> files[2] = {{report_unit, "OUTLYRT"},
                                                  {error_unit, "ERRLYRT"}};
    for (const auto& [unit, name] : files) {
        std::string field(name); // a 10-character name field, blank padded
        field.resize(10, ' ');
        write_fmt(unit, "(6A)",
                  {"File Name: = ", field, "   Program Executed on: ", date, ",  at: ", time});
        write_fmt(unit, "(80(\"=\"))", {});
        for (const char* line : banner) write_fmt(unit, "(A)", {line});
        write_fmt(unit, "(80(\"=\"))", {});
        if (n_proc > 1)
            write_fmt(unit, "(A,I6,A)",
                      {"   THIS IS THE PARALLEL VERSION ON", n_proc, " PROCESSES"});
        else
            write_fmt(unit, "(A)", {"   THIS IS THE SERIAL VERSION"});
        // A file KPTS samples the Brillouin zone; without it the run is at gamma.
        std::error_code ec;
        if (std::filesystem::exists("KPTS", ec))
            write_fmt(unit, "(A)", {"   BRILLOUIN ZONE SAMPLED AT THE POINTS OF KPTS"});
        else
            write_fmt(unit, "(A)", {"   COMPILED TO USE THE GAMMA POINT ONLY"});
        write_fmt(unit, "(80(\"=\"))", {});
    }
}

void close_units(bool normal_end) {
    std::string date, time;
    date_and_time(date, time);
    if (normal_end) {
        write_free(report_unit, {"   Program Terminated on: ", date, ",  at: ", time});
        unit_write(report_unit, "");
        write_free(report_unit, {"-- LYRT end --"});
    } else {
        write_free(report_unit, {"   Program Stopped on: ", date, ",  at: ", time});
        unit_write(report_unit, "");
        write_free(report_unit, {"-- LYRT stopped with an error --"});
    }
    unit_close(report_unit);
    unit_close(error_unit);
    unit_close(timing_unit);
}

void reopen_units() {
    unit_close(report_unit);
    unit_close(error_unit);
    unit_close(timing_unit);
    unit_open(report_unit, "OUTLYRT", "old", "append");
    unit_open(error_unit, "ERRLYRT", "old", "append");
    unit_open(timing_unit, "timings", "old", "append");
}

int next_free_unit() {
    for (int unit = 0; unit < 100; ++unit)
        if (!unit_is_open(unit)) return unit;
    return -1;
}

int file_count_lines(int unit) {
    unit_rewind(unit);
    int count = 0;
    std::string record;
    while (unit_read(unit, record) == 0) ++count;
    unit_rewind(unit);
    return count;
}

void flush(int unit) {
    if (is_standard(unit)) return;
    unit_record* u = find(unit);
    if (u == nullptr || u->name.find_first_not_of(' ') == std::string::npos) return;
    std::fflush(u->fp);
}

void io_reset() {
    auto& t = table();
    for (auto& [unit, u] : t) std::fclose(u.fp);
    t.clear();
}

} // namespace lyrt
