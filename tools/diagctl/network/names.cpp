#include "network/names.h"

#include "common/text.h"

#include <fmt/core.h>

#include <netinet/ether.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace
{

constexpr std::string_view BLANKS = " \t\r";

std::string_view take_word(std::string_view &line)
{
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
    line.remove_prefix(word.size());
    return word;
}

// ethers(5) leaves leading zeros out: 8:0:20:0:61:ca.
std::optional<mac_address> parse_ether(std::string_view text)
{
    if (const std::optional<mac_address> mac = parse_mac(text)) {
        return mac;
    }
    ether_addr address{};
    if (std::count(text.begin(), text.end(), ':') != MAC_SIZE - 1 ||
        ether_aton_r(std::string(text).c_str(), &address) == nullptr) {
        return {};
    }
    return std::to_array(address.ether_addr_octet);
}

bool is_same(std::string_view a, std::string_view b)
{
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

} // namespace

void node_names::add(std::string_view text, const std::string &file)
{
    for (size_t number = 1; !text.empty(); number++) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        line = line.substr(0, line.find('#'));
        const std::string_view address = take_word(line);
        if (address.empty()) {
            continue;
        }
        const std::string_view name = take_word(line);
        const std::optional<mac_address> mac = parse_ether(address);
        std::string complaint;
        if (!mac) {
            complaint = fmt::format("'{}' is no MAC address", printable(address));
        } else if (name.empty() || !take_word(line).empty()) {
            complaint = "expected a MAC address and a name of one word";
        } else {
            complaint = name_complaint(name);
        }
        if (!complaint.empty()) {
            throw bad_names(fmt::format("{}:{}: {}", file, number, complaint));
        }
        by_mac[*mac] = name;
    }
}

const std::string *node_names::of(const mac_address &mac) const
{
    const auto found = by_mac.find(mac);
    return found == by_mac.end() ? nullptr : &found->second;
}

std::vector<mac_address> node_names::find(std::string_view name) const
{
    std::vector<mac_address> found;
    for (const auto &[mac, candidate] : by_mac) {
        if (is_same(candidate, name)) {
            found.push_back(mac);
        }
    }
    return found;
}

std::string name_complaint(std::string_view word)
{
    uint32_t number = 0;
    if (word == "local" || parse_mac(word) || parse_u32(word, number)) {
        return fmt::format("'{}' can't be a name: it is a node already", printable(word));
    }
    // Topics and lists of nodes take some of the others, and a shell that completes a name may run what is in it.
    const auto is_plain = [](unsigned char c) {
        return c > '~' || std::isalnum(c) || c == '-' || c == '_' || c == '.';
    };
    return is_printable(word) && std::all_of(word.begin(), word.end(), is_plain) && !word.starts_with('-')
               ? ""
               : fmt::format("'{}' can't be a name: use letters, digits, '-', '_' and '.'", printable(word));
}
