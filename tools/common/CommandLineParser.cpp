#include "tools/common/CommandLineParser.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "tools/common/TextEscapes.h"

namespace {

constexpr std::size_t kNameColumn = 30, kWidth = 100;

std::string joined(std::vector<std::string> const& words, std::string const& last) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
        text += (i == 0 ? "" : i + 1 == words.size() ? last : ", ") + words[i];
    return text;
}

// Options with their values, defaults and what they go with; long texts on several lines.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option_opts(CLI::Option const* option) const override {
        bool const takesValue = !option->get_positional() && option->get_type_size() != 0;
        return takesValue ? " " + option->get_type_name() : "";
    }

    std::string make_option_desc(CLI::Option const* option) const override {
        std::string text = option->get_description();
        for (CLI::Option const* const other : option->get_needs())
            text += "; with " + other->get_name();
        for (CLI::Option const* const other : option->get_excludes())
            text += "; not with " + other->get_name();
        if (!option->get_default_str().empty()) text += " [" + option->get_default_str() + "]";
        return text;
    }

    std::string make_option(CLI::Option const* option, bool positional) const override {
        return row(make_option_name(option, positional) + make_option_opts(option),
                   make_option_desc(option));
    }

    std::string make_subcommand(CLI::App const* command) const override {
        return row(command->get_name(), command->get_description());
    }

private:
    static std::string row(std::string const& name, std::string const& text) {
        std::string result = "  " + name;
        if (result.size() + 1 > kNameColumn) result += "\n";
        std::size_t column = result.back() == '\n' ? 0 : result.size();
        for (std::string const& word : CLI::detail::split(text, ' ')) {
            if (column + 1 + word.size() > kWidth) {
                result += "\n";
                column = 0;
            }
            std::size_t const blanks = column < kNameColumn ? kNameColumn - column : 1;
            result.append(blanks, ' ').append(word);
            column += blanks + word.size();
        }
        return result + "\n";
    }
};

// The parser's own text, unless that is none for people.
std::string textOf(CLI::ParseError const& error, CLI::App const& app) {
    std::string text = error.what();
    auto const code = static_cast<CLI::ExitCodes>(error.get_exit_code());
    std::string const missing = "1 required ";
    std::size_t const colon = std::min(text.find(": "), text.size());
    std::vector<std::string> commands;
    for (CLI::App const* const command : app.get_subcommands({}))
        commands.push_back(command->get_name());
    if (code == CLI::ExitCodes::ExtrasError) {
        text.replace(0, colon, "no such option or argument");
    } else if (code == CLI::ExitCodes::RequiredError && text == "A subcommand is required") {
        text = "a command is missing: " + joined(commands, " or ");
    } else if (text.find(missing) == colon + 2) {
        text.erase(colon + 2, missing.size());
        text.insert(text.rfind(" missing"), " is");
    }
    return text;
}

}  // namespace

int complain(std::string_view program, ExitCode code, std::string_view text) {
    std::fprintf(stderr, "%s: %s", std::string(program).c_str(), printableLines(text).c_str());
    return static_cast<int>(code);
}

CLI::Validator oneOf(std::vector<std::string> words) {
    auto const check = [words](std::string const& given) -> std::string {
        if (std::find(words.begin(), words.end(), given) != words.end()) return {};
        return "'" + given + "' is not " + joined(words, " or ");
    };
    return {check, "", ""};
}

CommandLineParser::CommandLineParser(std::string const& program, std::string const& description)
    : m_app(description, program) {
    m_app.formatter(std::make_shared<HelpFormatter>());
    m_app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    m_app.get_formatter()->label("Subcommands", "Commands");
    m_app.get_formatter()->label("Positionals", "Arguments");
    m_app.set_help_flag("-h,--help", "Print this and end");
    m_app.set_version_flag("--version", program + " " POSTWIRE_VERSION,
                           "Print the version and end");
}

std::optional<int> CommandLineParser::parse(int argc, char const* const* argv) {
    try {
        m_app.parse(argc, argv);
        return {};
    } catch (CLI::Success const& e) {
        return m_app.exit(e);
    } catch (CLI::ParseError const& e) {
        return complain(m_app.get_name(), ExitCode::BadOptions,
                        textOf(e, m_app) + " (see " + m_app.get_name() + " --help)");
    }
}
