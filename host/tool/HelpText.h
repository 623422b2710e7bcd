// How the help texts look.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

/// As the library's own, but options show only what a person types for them, and "NAME..." stands
/// for a name that can be repeated.
class HelpText final : public CLI::Formatter {
  public:
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string& text = option->get_option_text();
        return text.empty() || text == " " ? "" : " " + text;
    }

    std::string make_option_usage(const CLI::Option* option) const override {
        std::string text = option->get_name(true);
        if (option->get_expected_max() > 1) text += "...";
        return option->get_required() ? text : "[" + text + "]";
    }
};
