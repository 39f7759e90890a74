#include "captures_folder.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "anti_cpu/anti_cpu.h"
#include "module_tables.h"

namespace host {

namespace {

namespace fs = std::filesystem;

// "a.cap" -> "a-2.cap"
std::string numbered(const std::string &name, uint32_t number) {
    const fs::path path(name);
    return path.stem().string() + "-" + std::to_string(number) + path.extension().string();
}

// Calls use(name, data, len) when this flow or source holds an automatic capture.
template <typename Use>
void use_capture(const Subject &subject, Use use) {
    const auto &[flow, source] = subject;
    void *data = nullptr;
    uint32_t len = 0;
    if (atc_api_get_port_capture(ATC_DIRECTION_RX, flow.vlan, flow.port, flow.protocol, source.type, source.address(),
                                 &data, &len) == 0) {
        use(capture_name(subject), data, len);
        atc_api_free_buffer(data);
    }
}

// Calls use(line) for each flow and source that holds one.
template <typename Use>
void each_holder(FlowAccount &account, Use use) {
    each_flow_row(account, {}, [&use](const FlowRow &row) {
        if (row.flow.capture_bytes > 0) {
            use(row.flow);
        }
        for (const FlowLine &line : row.sources) {
            if (line.capture_bytes > 0) {
                use(line);
            }
        }
    });
}

}  // namespace

std::string capture_name(const Subject &subject) {
    const auto &[flow, source] = subject;
    std::string name =
        "atc-rx-" + std::to_string(flow.port) + "-" + std::to_string(flow.vlan) + "-" + protocol_name(flow.protocol);
    if (source.type != ATC_SRC_NONE) {
        std::string address = source_text(source);
        if (source.type == ATC_SRC_MAC) {
            std::ranges::replace(address, ':', '-');
        }
        name += "-(" + address + ")";
    }
    return name + ".cap";
}

std::vector<HeldCapture> held_captures(FlowAccount &account) {
    std::vector<HeldCapture> held;
    each_holder(account, [&held](const FlowLine &line) {
        held.push_back({capture_name(line.subject), line.capture_bytes});
    });
    return held;
}

bool CapturesFolder::open(const std::string &path, uint64_t quota, Problems &problems) {
    std::error_code error;
    fs::create_directories(path, error);
    if (!fs::is_directory(path)) {
        problems.report(path, "captures", "cannot be used as the captures folder: " + error.message());
        return false;
    }
    path_ = path;
    quota_ = quota;
    problems_ = &problems;
    for (const fs::directory_entry &entry : fs::directory_iterator(path, error)) {
        std::error_code ignored;
        held_ += entry.is_regular_file(ignored) ? entry.file_size(ignored) : 0;
    }
    return true;
}

bool CapturesFolder::write(const std::string &name, const void *data, uint32_t len) {
    const std::lock_guard lock(mutex_);
    const std::string content(static_cast<const char *>(data), len);
    std::string free_name = name;
    for (uint32_t number = 2;; number++) {
        const auto earlier = written_.find(free_name);
        if (earlier == written_.end()) {
            return store(free_name, content);
        }
        if (content.compare(0, earlier->second.size(), earlier->second) == 0) {
            return store(free_name, content);  // the same capture, perhaps grown
        }
        free_name = numbered(name, number);
    }
}

void CapturesFolder::write_all(FlowAccount &account) {
    each_holder(account, [this](const FlowLine &line) {
        use_capture(line.subject,
                    [this](const std::string &name, const void *data, uint32_t len) { write(name, data, len); });
    });
}

// "anti-cpu port 3 vlan 100 protocol arp src mac 02:00:00:00:00:07 diagnose buffer is overflow"
void CapturesFolder::write_full(const std::string &message) {
    uint32_t port = 0;
    uint32_t vlan = 0;
    char name[32] = "";
    char address[64] = "";
    const int found = std::sscanf(message.c_str(), "anti-cpu port %u vlan %u protocol %31s src %*s %63s", &port, &vlan,
                                  name, address);
    constexpr int of_flow = 3;
    constexpr int of_source = 4;
    const auto source = found == of_source ? parse_source(address) : Source{};
    if (found >= of_flow && source) {
        use_capture({{port, vlan, parse_protocol(name)}, *source},
                    [this](const std::string &file, const void *data, uint32_t len) { write(file, data, len); });
    }
}

bool CapturesFolder::store(const std::string &name, const std::string &content) {
    const fs::path path = fs::path(path_) / name;
    std::error_code missing;
    const uintmax_t found = fs::file_size(path, missing);
    const uint64_t replaced = missing ? 0 : found;
    if (held_ - replaced + content.size() > quota_) {
        problems_->report(path_, "quota",
                          name + " is not written: the captures folder would hold more than its quota of " +
                              std::to_string(quota_) + " bytes");
        return false;
    }
    std::string error;
    if (!write_file(path.string(), content.data(), content.size(), error)) {
        problems_->report(path.string(), "write", "cannot be written: " + error);
        return false;
    }
    held_ += content.size() - replaced;
    written_[name] = content;
    return true;
}

bool write_file(const std::string &path, const void *data, size_t len, std::string &error) {
    std::FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        error = std::generic_category().message(errno);
        return false;
    }
    const bool written = std::fwrite(data, 1, len, file) == len;
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        error = std::generic_category().message(errno);
        return false;
    }
    return true;
}

}  // namespace host
