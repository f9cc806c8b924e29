#include "tools/manual.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <string_view>
#include <vector>

namespace handwriting::tools {
namespace {

using Options = std::vector<const CLI::Option*>;

// What stands in the help: options of no group are not spoken of.
Options VisibleOptions(const CLI::App& app) {
  Options options = app.get_options();
  std::erase_if(options, [](const CLI::Option* option) { return option->get_group().empty(); });
  return options;
}

std::vector<const CLI::App*> SubCommands(const CLI::App& app) { return app.get_subcommands({}); }

bool IsPositional(const CLI::Option& option) { return option.get_positional(); }
bool TakesValue(const CLI::Option& option) { return option.get_expected_max() > 0; }

std::vector<std::string> Spellings(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

std::string Joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
  return text;
}

// ---- The manual page ------------------------------------------------------------------------------

// Text as troff takes it: hyphens that can be copied, and nothing at the begin of a line that would
// be a request.
std::string Plain(std::string_view text) {
  std::string plain;
  bool begins_line = true;
  for (const char c : text) {
    if (begins_line && (c == '.' || c == '\'')) plain += "\\&";
    if (c == '\\') {
      plain += "\\e";
    } else if (c == '-') {
      plain += "\\-";
    } else {
      plain += c;
    }
    begins_line = c == '\n';
  }
  return plain;
}
std::string Bold(std::string_view text) { return "\\fB" + Plain(text) + "\\fR"; }
std::string Italic(std::string_view text) { return "\\fI" + Plain(text) + "\\fR"; }

std::string Upper(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

std::string Synopsis(const CLI::App& command) {
  std::string text = Bold("handwriting " + command.get_name());
  std::string options;
  for (const CLI::Option* option : VisibleOptions(command)) {
    if (IsPositional(*option)) {
      const bool many = option->get_expected_max() > 1;
      text += " " + Italic(option->get_name(true)) + (many ? " ..." : "");
    } else if (option->get_lnames() != std::vector<std::string>{"help"}) {
      options += " [" + Bold(Spellings(*option).back());
      if (TakesValue(*option)) options += " " + Italic(option->get_type_name());
      options += "]";
    }
  }
  return text + options + "\n";
}

std::string DescribeOption(const CLI::Option& option) {
  std::string text = ".TP\n";
  if (IsPositional(option)) {
    text += Italic(option.get_name(true));
  } else {
    text += Bold(Joined(Spellings(option), ", "));
    if (TakesValue(option)) text += " " + Italic(option.get_type_name());
  }
  text += "\n" + Plain(option.get_description());
  if (!option.get_default_str().empty()) text += " (default: " + option.get_default_str() + ")";
  return text + ".\n";
}

std::string AsWritten(const std::string& text) {
  return text.empty() ? "" : ".PP\n.nf\n" + Plain(text) + "\n.fi\n";
}

// ---- Completions ----------------------------------------------------------------------------------

bool TakesFile(const CLI::Option& option) {
  return option.get_type_name() == "FILE" || option.get_type_name() == "FOLDER";
}

// A branch of the case over "sub-command:option before the cursor".
std::string ValueBranch(const std::string& command, const CLI::Option& option) {
  std::vector<std::string> patterns;
  for (const std::string& name : Spellings(option)) patterns.push_back(command + ":" + name);
  return "    " + Joined(patterns, " | ") + ") " +
         (TakesFile(option) ? "return" : "compopt +o default && return") + " ;;\n";
}

}  // namespace

std::string ManualPage(const CLI::App& app, const std::string& version) {
  std::ostringstream page;
  const std::string& name = app.get_name();
  page << ".TH " << Upper(name) << " 1 \"\" \"" << Plain(name + " " + version) << "\"\n"
       << ".SH NAME\n"
       << Plain(name) << " \\- look at model files of the handwriting recognizer, convert, run and "
       << "time them\n"
       << ".SH SYNOPSIS\n";
  for (const CLI::App* command : SubCommands(app)) page << Synopsis(*command) << ".br\n";
  page << Bold(name) << " [" << Bold("--help") << "] [" << Bold("--version") << "]\n"
       << ".SH DESCRIPTION\n"
       << Plain(app.get_description()) << "\n"
       << AsWritten(app.get_footer()) << ".SH COMMANDS\n";
  for (const CLI::App* command : SubCommands(app)) {
    page << ".SS " << Plain(command->get_name()) << "\n"
         << Plain(command->get_description()) << ".\n";
    for (const CLI::Option* option : VisibleOptions(*command)) page << DescribeOption(*option);
    page << AsWritten(command->get_footer());
  }
  return page.str();
}

std::string BashCompletion(const CLI::App& app) {
  const auto words = [](const CLI::App& command) {
    std::vector<std::string> options;
    for (const CLI::Option* option : VisibleOptions(command)) {
      if (!IsPositional(*option)) options.push_back(Spellings(*option).back());
    }
    return Joined(options, " ");
  };
  std::string first = words(app);
  std::string values;
  std::string options;
  for (const CLI::App* command : SubCommands(app)) {
    first += " " + command->get_name();
    options += "    " + command->get_name() + ") options='" + words(*command) + "' ;;\n";
    for (const CLI::Option* option : VisibleOptions(*command)) {
      if (!IsPositional(*option) && TakesValue(*option)) {
        values += ValueBranch(command->get_name(), *option);
      }
    }
  }
  const std::string& name = app.get_name();
  return "# Bash completions of " + name + ", from its command line.\n_" + name + "() {\n" +
         R"(  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local command=${COMP_WORDS[1]} options=
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W ')" +
         first + R"(' -- "$current")
    return
  fi
  case $command:$before in
)" + values +
         R"(  esac
  [[ $current == -* ]] || return
  case $command in
)" + options +
         R"(  esac
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
}
complete -o default -F _)" +
         name + " " + name + "\n";
}

}  // namespace handwriting::tools
