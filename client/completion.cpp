/*
 * The bash script has two tables, made by walking the commands: what may follow each command, and
 * what may follow each option that takes a value. The fixed part below walks the typed words to
 * find the command and looks both up.
 */
#include "completion.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

namespace corvane::client {
namespace {

constexpr const char *kHead =
    R"bash(# Completion of corvanectl for bash. Made by the build; do not edit.

_corvanectl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local path=corvanectl i word candidates=
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if _corvanectl_values "$word"; then
            i=$((i + 1))
        elif [[ $word != -* && " $(_corvanectl_words "$path") " == *" $word "* ]]; then
            path+=" $word"
        fi
    done
    if _corvanectl_values "$prev"; then
        if [[ $candidates == FILE ]]; then
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
        fi
        return
    fi
    candidates=$(_corvanectl_words "$path")
    if [[ $path == 'corvanectl settings '@(get|set|watch) ]]; then
        candidates+=" $(corvanectl settings list 2>/dev/null | cut -d ' ' -f 1)"
    fi
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
}

)bash";

constexpr const char *kTail = "complete -F _corvanectl corvanectl\n";

/* The names of an option that a user may type; none for hidden ones. */
std::vector<std::string> namesOf(const CLI::Option &option) {
    std::vector<std::string> names;
    if (option.get_group().empty())
        return names;
    for (const std::string &name : option.get_lnames())
        names.push_back("--" + name);
    return names;
}

/* The values that an option or positional may take: those of a fixed set "a|b", FILE for a file,
 * else nothing. */
std::string valuesOf(const CLI::Option &option) {
    std::string type = option.get_type_name();
    if (type.find('|') == std::string::npos)
        return type == "FILE" ? type : "";
    std::replace(type.begin(), type.end(), '|', ' ');
    return type;
}

class Tables {
public:
    explicit Tables(const CLI::App &root) : root_(root) { add(root, root.get_name()); }

    std::string words() const { return words_.str(); }
    std::string values() const {
        std::string lines;
        for (const auto &[name, values] : values_)
            lines += "    " + name + ") candidates='" + values + "' ;;\n";
        return lines;
    }

private:
    void add(const CLI::App &command, const std::string &path) {
        std::string words;
        for (const CLI::App *child : command.get_subcommands([](const CLI::App *) { return true; }))
            words += child->get_name() + " ";
        addOptions(command, words);
        if (&command != &root_)
            addOptions(root_, words);
        words.pop_back();
        words_ << "    '" << path << "') echo '" << words << "' ;;\n";
        for (const CLI::App *child : command.get_subcommands([](const CLI::App *) { return true; }))
            add(*child, path + " " + child->get_name());
    }

    void addOptions(const CLI::App &owner, std::string &words) {
        for (const CLI::Option *option : owner.get_options()) {
            if (option->get_positional()) {
                const std::string values = valuesOf(*option);
                words += values.empty() ? "" : values + " ";
            }
            for (const std::string &name : namesOf(*option)) {
                if (words.find(name + " ") == std::string::npos)
                    words += name + " ";
                if (option->get_items_expected_max() > 0)
                    values_[name] = valuesOf(*option);
            }
        }
    }

    const CLI::App &root_;
    std::ostringstream words_;
    std::map<std::string, std::string> values_; // by option; no two differ under one name
};

} // namespace

std::string bashCompletion(const CLI::App &app) {
    const Tables tables(app);
    return std::string(kHead) + "# What may follow a command.\n_corvanectl_words() {\n" +
           "    case $1 in\n" + tables.words() + "    esac\n}\n\n" +
           "# Whether a word takes a value; sets candidates to what it may be.\n"
           "_corvanectl_values() {\n    case $1 in\n" +
           tables.values() + "    *) return 1 ;;\n    esac\n}\n\n" + kTail;
}

} // namespace corvane::client
