#include "qvhlp_url.h"

#include <cctype>
#include <new>
#include <string_view>

namespace {

// Index at which the port separator is looked for: past the colon of a scheme such as "amqp:".
constexpr size_t s_port_search_start = 6;
// Index at which the path is looked for when there is no port: past the "//" of "amqp://".
constexpr size_t s_path_search_start = 8;

std::string_view s_after(std::string_view text, size_t pos) {
    return pos < text.size() ? text.substr(pos) : std::string_view();
}

}  // namespace

std::optional<URL_INFO> qvhlp_split_url(const char* url) {
    if (url == nullptr) {
        return std::nullopt;
    }
    try {
        const std::string_view text(url);
        URL_INFO info;
        info.protocol = text.substr(0, text.find_first_of(":/"));

        const size_t scheme_end = text.find("://");
        const std::string_view host_part =
            scheme_end == std::string_view::npos ? text : text.substr(scheme_end + 3);
        info.site = host_part.substr(0, host_part.find_first_of(":/"));

        const std::string_view tail = s_after(text, s_port_search_start);
        const size_t colon = tail.find(':');
        if (colon != std::string_view::npos && colon + 1 < tail.size() &&
            isdigit(static_cast<unsigned char>(tail[colon + 1]))) {
            const std::string_view port_and_path = tail.substr(colon + 1);
            const size_t slash = port_and_path.find('/');
            info.port = port_and_path.substr(0, slash);
            info.path =
                slash == std::string_view::npos ? std::string_view() : port_and_path.substr(slash);
        } else {
            info.port = "5672";
            const std::string_view rest = s_after(text, s_path_search_start);
            const size_t slash = rest.find('/');
            info.path =
                slash == std::string_view::npos ? std::string_view("/") : rest.substr(slash);
        }
        return info;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}
