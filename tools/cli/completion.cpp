// SPDX-License-Identifier: Apache-2.0
#include <sstream>
#include <string>
#include <vector>

#include "cli/output.h"
#include "cli/program.h"

namespace SecurityPrivacyExample {
namespace {

void Offer(const std::string& typed, const std::string& word, const std::string& description)
{
    if (word.compare(0, typed.size(), typed) == 0) {
        PrintLine(word + "\t" + description);
    }
}

// The words that an option's value may be.
void OfferValues(const std::string& typed, const std::string& text)
{
    if (text == "FILE" || text == "FOLDER") {
        PrintLine("@file");
    } else if (text.find('|') != std::string::npos) {
        std::istringstream words(text);
        for (std::string word; std::getline(words, word, '|');) {
            Offer(typed, word, "");
        }
    }
}

}  // namespace

void PrintCompletions(CLI::App& app, const std::vector<std::string>& words)
{
    CLI::App* command = &app;
    const CLI::Option* pending = nullptr;  // waits for its value
    for (size_t index = 0; index + 1 < words.size(); ++index) {
        const std::string& word = words[index];
        if (pending != nullptr) {
            // A shell may take "--mode=denied" for three words.
            pending = word == "=" ? pending : nullptr;
        } else if (word.size() > 1 && word.front() == '-') {
            const CLI::Option* own = command->get_option_no_throw(word);
            const CLI::Option* option = own != nullptr ? own : app.get_option_no_throw(word);
            pending = option != nullptr && option->get_items_expected_max() > 0 ? option : nullptr;
        } else {
            const auto found =
                command->get_subcommands([&word](const CLI::App* candidate) { return candidate->get_name() == word; });
            command = found.empty() ? command : found.front();
        }
    }
    const std::string typed = words.empty() || words.back() == "=" ? "" : words.back();
    if (pending != nullptr) {
        OfferValues(typed, pending->get_option_text());
        return;
    }
    for (const CLI::App* offered : {command, &app}) {
        for (const CLI::Option* option : offered->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                if (typed.rfind('-', 0) == 0 && (offered == &app || app.get_option_no_throw("--" + name) == nullptr)) {
                    Offer(typed, "--" + name, option->get_description());
                }
            }
        }
    }
    for (const CLI::App* subcommand : command->get_subcommands(nullptr)) {
        Offer(typed, subcommand->get_name(), subcommand->get_description());
    }
}

}  // namespace SecurityPrivacyExample
