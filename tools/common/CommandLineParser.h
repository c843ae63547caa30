#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

// What each of the programs ends with; their manual pages say what it means there.
enum class ExitCode : int {
    Done = 0,
    Otherwise = 1,      // another outcome than was asked for, or out of memory or threads
    BadOptions = 2,     // or something that must not be done so
    BadFile = 3,        // a file or folder can't be read or written, or is not what it should be
    BadConnection = 4,  // no connection or no port to listen on, or a time limit passed
    BadAnswer = 5,      // malformed or cut short
};

// Prints "PROGRAM: TEXT" to standard error, fit for a terminal; gives the code for main to return.
int complain(std::string_view program, ExitCode code, std::string_view text);

// A number from `low` to `high`. An option that has this names both where it is told another.
template <class Number>
CLI::Validator within(Number low, Number high);

// One of these words, likewise.
CLI::Validator oneOf(std::vector<std::string> words);

// The command line of a program, with the manners that all of them share: --help without what only
// the parser's author understands, --version with the program's name, complaints in one line that
// name the option and what it takes, and one exit code for all of these.
//
// In main:
//     CommandLineParser parser("postwire-serve", "Receives SOAP messages.");
//     parser.app().add_option("--port", port, "Port to listen on")
//         ->type_name("PORT")->check(within(0, 65535))->capture_default_str();
//     if (auto const code = parser.parse(argc, argv)) return *code;
class CommandLineParser {
public:
    CommandLineParser(std::string const& program, std::string const& description);

    // To add options, commands and a footer to. A positional option is named as help shows it, in
    // capitals; an option with a value has a type_name.
    CLI::App& app() { return m_app; }

    // The code to return at once: after --help and --version, and for bad options.
    std::optional<int> parse(int argc, char const* const* argv);

private:
    CLI::App m_app;
};

template <class Number>
CLI::Validator within(Number low, Number high) {
    auto const text = [](Number number) { return CLI::detail::to_string(number); };
    auto const check = [low, high, text](std::string const& given) -> std::string {
        Number number{};
        // Asked for so that "nan", which compares with nothing, is refused.
        if (CLI::detail::lexical_cast(given, number) && number >= low && number <= high) return {};
        return "'" + given + "' is no number from " + text(low) + " to " + text(high);
    };
    return {check, "", ""};
}
