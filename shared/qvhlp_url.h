// Splitting of broker URLs of the form scheme://host[:port][/path] into their parts.
#pragma once

#include <optional>
#include <string>

struct URL_INFO {
    std::string protocol;
    std::string site;
    std::string port;
    std::string path;
};

// protocol: the text before the first ':' or '/'. site: the text after "://" (or from the start
// when there is none) up to the next ':' or '/'. The port separator is looked for from index 6
// on, just past a scheme's colon: when the first ':' there is followed by a digit, port is the
// text up to the next '/' and path what follows it (possibly empty). Otherwise port is the AMQP
// default "5672" and path runs from the first '/' at index 8 or later, or is "/" when there is
// none. So a bare "host:port" keeps its port only when the host is at least six characters long.
// Null for a null URL.
std::optional<URL_INFO> qvhlp_split_url(const char* url);
