#include "completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace tarvikctl {

namespace {

// What may follow one command path: "tarvikctl" is the tool itself, "tarvikctl exposure
// get-times" a nested command.
struct Level {
    std::vector<std::string> subcommands;
    std::vector<std::string> options;     // every spelling: -h --help --bus ...
    std::vector<std::string> takesValue;  // options followed by a value
    std::vector<std::string> takesFile;   // ... that value being a file name
};

using Levels = std::map<std::string, Level>;  // ordered, so the script is reproducible

// An option's type name is "FILE", or "FILE:<validator>" when it is checked.
bool NamesFile(const std::string& typeName) {
    const std::string base = typeName.substr(0, typeName.find(':'));
    return base == "FILE" || base == "PATH" || base == "DIR";
}

void AddOwnOptions(const CLI::App& app, Level& level) {
    for (const CLI::Option* opt : app.get_options()) {
        if (!opt->nonpositional() || opt->get_group().empty()) continue;
        const bool value = opt->get_items_expected_max() != 0;  // flags take none
        std::vector<std::string> spellings;
        for (const std::string& s : opt->get_snames()) spellings.push_back("-" + s);
        for (const std::string& l : opt->get_lnames()) spellings.push_back("--" + l);
        for (const std::string& spelling : spellings) {
            // A subcommand's own --help hides its parent's.
            if (std::find(level.options.begin(), level.options.end(), spelling) !=
                level.options.end()) {
                continue;
            }
            level.options.push_back(spelling);
            if (value) level.takesValue.push_back(spelling);
            if (value && NamesFile(opt->get_type_name())) level.takesFile.push_back(spelling);
        }
    }
    // Option groups are nameless subcommands whose options belong to app.
    for (const CLI::App* group :
         app.get_subcommands([](const CLI::App* sub) { return sub->get_name().empty(); })) {
        AddOwnOptions(*group, level);
    }
}

void Collect(const CLI::App& app, const std::string& path, Levels& levels) {
    Level& level = levels[path];
    AddOwnOptions(app, level);
    // With fallthrough, an option a command does not know goes to its parent.
    for (const CLI::App* a = &app; a->get_fallthrough() && a->get_parent() != nullptr;) {
        a = a->get_parent();
        AddOwnOptions(*a, level);
    }
    const auto visible = [](const CLI::App* sub) {
        return !sub->get_name().empty() && !sub->get_group().empty() && !sub->get_disabled();
    };
    for (const CLI::App* sub : app.get_subcommands(visible)) {
        level.subcommands.push_back(sub->get_name());
        Collect(*sub, path + " " + sub->get_name(), levels);
    }
}

// A bash double-quoted string's content.
std::string Quoted(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '"' || c == '\\' || c == '$' || c == '`') out += '\\';
        out += c;
    }
    return out;
}

std::string Words(const std::vector<std::string>& words) {
    std::string out;
    for (const std::string& w : words) out += (out.empty() ? "" : " ") + w;
    return out;
}

// One associative array: command path -> words.
std::string Table(const char* name, const Levels& levels, std::vector<std::string> Level::*member) {
    std::string out = std::string("    local -A ") + name + "=(\n";
    for (const auto& [path, level] : levels) {
        const auto& words = level.*member;
        if (words.empty()) continue;
        out += "        [\"" + Quoted(path) + "\"]=\"" + Quoted(Words(words)) + "\"\n";
    }
    return out + "    )\n";
}

std::string FunctionName(const std::string& tool) {
    std::string out = "_";
    for (char c : tool) out += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return out;
}

// The walk over the words before the cursor finds the command path; the word before the cursor
// says whether a value, a file name, an option or a subcommand comes next. bash splits
// "--log=FILE" into "--log" "=" "FILE" (COMP_WORDBREAKS), hence the "=" cases.
constexpr char kBody[] = R"(    local cur=${COMP_WORDS[COMP_CWORD]} prev word i
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -- ]]; then
            return 0
        elif [[ " ${values[$path]} " == *" $word "* ]]; then
            i=$((i + 1))
            if [[ ${COMP_WORDS[i]} == = ]]; then i=$((i + 1)); fi
        elif [[ $word != -* && " ${subcommands[$path]} " == *" $word "* ]]; then
            path="$path $word"
        fi
    done
    prev=${COMP_WORDS[COMP_CWORD - 1]}
    if [[ $prev == = && $COMP_CWORD -ge 2 ]]; then prev=${COMP_WORDS[COMP_CWORD - 2]}; fi
    if [[ $cur == = ]]; then cur=""; fi
    if [[ " ${files[$path]} " == *" $prev "* ]]; then
        compopt -o filenames 2>/dev/null
        COMPREPLY=($(compgen -f -- "$cur"))
    elif [[ " ${values[$path]} " == *" $prev "* ]]; then
        COMPREPLY=()
    elif [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "${options[$path]}" -- "$cur"))
    else
        COMPREPLY=($(compgen -W "${subcommands[$path]}" -- "$cur"))
    fi
)";

}  // namespace

std::string BashCompletion(const CLI::App& app) {
    const std::string tool = app.get_name();
    Levels levels;
    Collect(app, tool, levels);
    const std::string function = FunctionName(tool);
    return "# bash completion for " + tool + ", made by '" + tool + " --bash-completion'\n" +
           function + "() {\n" + Table("subcommands", levels, &Level::subcommands) +
           Table("options", levels, &Level::options) + Table("values", levels, &Level::takesValue) +
           Table("files", levels, &Level::takesFile) + "    local path=\"" + Quoted(tool) + "\"\n" +
           kBody + "}\ncomplete -F " + function + " " + tool + "\n";
}

void AddBashCompletionOption(CLI::App& app) {
    app.add_flag_callback(
        "--bash-completion",
        [&app] {
            std::fputs(BashCompletion(app).c_str(), stdout);
            throw CLI::Success();
        },
        "Print a bash completion script for this tool and exit");
}

}  // namespace tarvikctl
