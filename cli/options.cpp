#include "options.hpp"

#include <charconv>
#include <cstring>

namespace zqcli {

const std::string *ParsedArgs::value(const std::string &name) const {
    auto it = options.find(name);
    return it == options.end() ? nullptr : &it->second;
}

namespace {

const OptionDef *find_long(std::span<const OptionDef> defs, std::string_view name) {
    for (const OptionDef &def : defs)
        if (name == def.name) return &def;
    return nullptr;
}

const OptionDef *find_short(std::span<const OptionDef> defs, char name) {
    for (const OptionDef &def : defs)
        if (def.short_name && def.short_name == name) return &def;
    return nullptr;
}

} // namespace

bool parse_args(std::span<char *const> args, std::span<const OptionDef> defs, bool stop_at_positional,
                ParsedArgs &parsed, std::string &error) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg == "--") {
            parsed.positionals.insert(parsed.positionals.end(), args.begin() + i + 1, args.end());
            return true;
        }
        if (arg.size() < 2 || arg[0] != '-') {
            if (stop_at_positional) {
                parsed.positionals.insert(parsed.positionals.end(), args.begin() + i, args.end());
                return true;
            }
            parsed.positionals.emplace_back(arg);
            continue;
        }
        const OptionDef *def = nullptr;
        std::optional<std::string> inline_value;
        if (arg.starts_with("--")) {
            std::string_view name = arg.substr(2);
            const size_t eq = name.find('=');
            if (eq != std::string_view::npos) {
                inline_value = std::string(name.substr(eq + 1));
                name = name.substr(0, eq);
            }
            def = find_long(defs, name);
        } else if (arg.size() == 2) {
            def = find_short(defs, arg[1]);
        }
        if (!def) {
            error = "unknown option '" + std::string(arg) + "'";
            return false;
        }
        if (!def->value_name) {
            if (inline_value) {
                error = std::string("option '--") + def->name + "' takes no value";
                return false;
            }
            parsed.options[def->name] = "";
            continue;
        }
        if (!inline_value) {
            if (i + 1 >= args.size()) {
                error = std::string("option '--") + def->name + "' needs a value (" + def->value_name + ")";
                return false;
            }
            inline_value = args[++i];
        }
        parsed.options[def->name] = *inline_value;
    }
    return true;
}

std::optional<uint32_t> parse_number(const std::string &text, uint32_t min, uint32_t max) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < min || value > max)
        return std::nullopt;
    return value;
}

std::string options_help(std::span<const OptionDef> defs) {
    std::string help = "Options:\n";
    for (const OptionDef &def : defs) {
        std::string left = def.short_name ? std::string("-") + def.short_name + ", " : "    ";
        left += std::string("--") + def.name;
        if (def.value_name) left += std::string(" ") + def.value_name;
        help += "  " + left;
        help += left.size() < 24 ? std::string(24 - left.size(), ' ') : "\n" + std::string(26, ' ');
        help += def.help;
        help += '\n';
    }
    return help;
}

} // namespace zqcli
