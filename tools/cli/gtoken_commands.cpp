// SPDX-License-Identifier: Apache-2.0
#include <charconv>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "cli/failure.h"
#include "cli/output.h"
#include "cli/program.h"
#include "common/json_input.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenPolicy;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResult;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResultWithRet;

constexpr size_t MAX_ENTRIES = 10000;
constexpr size_t MAX_FINGERPRINT_BYTES = 4096;

struct AddPolicyOptions {
    GTokenInfo info;
    std::string fingerprintPath;
    std::vector<std::string> policies;
    std::string path;
};

struct BundlesOptions {
    std::string policyName;
    std::vector<std::string> bundleNames;
};

GTokenPolicy ParsePolicy(const std::string& text)
{
    const size_t equals = text.rfind('=');
    GTokenPolicy policy;
    if (equals != std::string::npos && equals != 0) {
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data() + equals + 1, end, policy.policyValue);
        if (error == std::errc() && stop == end) {
            policy.policyName = text.substr(0, equals);
            return policy;
        }
    }
    throw Failure(EXIT_USAGE, "--policy: \"" + Visible(text) + "\" is not NAME=VALUE with a whole number as the value");
}

std::string ReadFingerprint(const std::string& path)
{
    std::string fingerprint = ReadFile(path == "-" ? "/dev/stdin" : path, MAX_FINGERPRINT_BYTES);
    fingerprint.erase(fingerprint.find_last_not_of(" \t\r\n") + 1);
    return fingerprint;
}

std::vector<GTokenInfo> ReadInfos(const std::string& path)
{
    const JsonDocument document(path);
    document.Root().AllowOnly({"gTokens"});
    std::vector<GTokenInfo> infos;
    for (const JsonNode& item : document.Root()["gTokens"].Items()) {
        infos.push_back(ReadGTokenInfo(item));
        if (infos.back().policies.size() > MAX_ENTRIES) {
            item.Fail("more than " + std::to_string(MAX_ENTRIES) + " policies");
        }
    }
    if (infos.empty()) {
        throw InputError(path + ": there is nothing to add");
    }
    CheckLength(path.c_str(), infos.size(), MAX_ENTRIES);
    return infos;
}

GTokenInfo MakeInfo(const AddPolicyOptions& options)
{
    GTokenInfo info = options.info;
    if (!options.fingerprintPath.empty()) {
        info.fingerprint = ReadFingerprint(options.fingerprintPath);
    }
    if (info.bundleName.empty() || info.fingerprint.empty()) {
        throw Failure(EXIT_USAGE,
                      "add needs --bundle and a --fingerprint-file (or --fingerprint) that is not empty, "
                      "or else --from; see 'gtoken add --help'");
    }
    CheckLength("--policy", options.policies.size(), MAX_ENTRIES);
    for (const std::string& policy : options.policies) {
        info.policies.push_back(ParsePolicy(policy));
    }
    return info;
}

void ReportCount(const Program& program, const char* done, size_t count)
{
    if (program.isJson) {
        PrintJson({{done, count}});
    } else {
        PrintLine(std::string(done) + ": " + std::to_string(count) + (count == 1 ? " bundle" : " bundles"));
    }
}

void RunAdd(const Program& program, const Connection& connection, const AddPolicyOptions& options)
{
    const std::vector<GTokenInfo> infos =
        options.path.empty() ? std::vector<GTokenInfo>{MakeInfo(options)} : ReadInfos(options.path);
    connection.Check(SecurityPrivacyClient::GetInstance().GTokenPolicyAddPolicy(infos));
    ReportCount(program, "added", infos.size());
}

void RunGet(const Program& program, const Connection& connection, const BundlesOptions& options)
{
    CheckLength("BUNDLE", options.bundleNames.size(), MAX_ENTRIES);
    const GTokenResultWithRet result =
        SecurityPrivacyClient::GetInstance().GTokenPolicyGetPolicy(options.policyName, options.bundleNames);
    connection.Check(result.ret);
    // The rows carry the bundles' fingerprints; they are nobody's business here.
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    std::vector<TableRow> rows;
    for (const GTokenResult& row : result.gTokenResults) {
        list.push_back({{"bundleName", row.bundleName},
                        {"versionCode", row.versionCode},
                        {"policyName", options.policyName},
                        {"policyValue", row.policyValue}});
        rows.push_back(
            {row.bundleName, std::to_string(row.versionCode), options.policyName, std::to_string(row.policyValue)});
    }
    if (program.isJson) {
        PrintJson(list);
    } else {
        PrintTable({"BUNDLE", "VERSION", "POLICY", "VALUE"}, rows);
    }
}

void RunRemove(const Program& program, const Connection& connection, const BundlesOptions& options)
{
    CheckLength("BUNDLE", options.bundleNames.size(), MAX_ENTRIES);
    connection.Check(SecurityPrivacyClient::GetInstance().GTokenPolicyRemovePolicy(options.bundleNames));
    ReportCount(program, "removed", options.bundleNames.size());
}

void AddAdd(CLI::App& gtoken, Program& program)
{
    CLI::App* command = gtoken.add_subcommand("add", "Set policies of one bundle, or of many from a file");
    const auto options = std::make_shared<AddPolicyOptions>();
    CLI::Option* bundle = command->add_option("--bundle", options->info.bundleName, "The bundle");
    command->add_option("--version-code", options->info.versionCode, "The bundle's version [0]")->option_text("N");
    CLI::Option* file = command->add_option("--fingerprint-file", options->fingerprintPath,
                                            "File with the bundle's fingerprint; - for standard input");
    CLI::Option* fingerprint = command->add_option("--fingerprint", options->info.fingerprint,
                                                   "The fingerprint itself: other users of the machine can see it");
    AddRepeatedOption(*command, "--policy", options->policies,
                      "A policy and its value, a whole number; may be repeated")
        ->option_text("NAME=VALUE");
    CLI::Option* from = command->add_option("--from", options->path,
                                            "JSON file of many bundles, see below; in place of the other options");
    bundle->option_text("BUNDLE");
    file->option_text("FILE");
    fingerprint->option_text("TEXT");
    from->option_text("FILE");
    fingerprint->excludes(file);
    from->excludes(bundle)->excludes(file)->excludes(fingerprint);
    command->footer(
        "\nA bundle that is stored already has to have the same fingerprint; its version is replaced, and so are\n"
        "policies of the same name. Either all bundles of one call are stored or none. Fingerprints are never "
        "printed.\n"
        "\nThe file for --from:\n"
        "  {\"gTokens\": [{\"bundleName\": \"com.example.bank\", \"fingerprint\": \"4F21...\", \"versionCode\": 7,\n"
        "                \"policies\": {\"screen_capture\": 0}}]}\n"
        "\nExample:\n"
        "  security-privacy-cli gtoken add --bundle com.example.bank --version-code 7 \\\n"
        "      --fingerprint-file bank.fingerprint --policy screen_capture=0 --policy attestation=2");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) { RunAdd(program, connection, *options); };
    });
}

void AddGet(CLI::App& gtoken, Program& program)
{
    CLI::App* command = gtoken.add_subcommand("get", "The value of a policy for bundles");
    const auto options = std::make_shared<BundlesOptions>();
    command->add_option("POLICY", options->policyName, "Name of the policy")->required()->option_text(" ");
    command->add_option("BUNDLE", options->bundleNames, "The bundles; one without the policy gives no row")
        ->required()
        ->option_text("...");
    command->footer("\nExample:\n  security-privacy-cli gtoken get screen_capture com.example.bank com.example.mail");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) { RunGet(program, connection, *options); };
    });
}

void AddRemove(CLI::App& gtoken, Program& program)
{
    CLI::App* command = gtoken.add_subcommand("remove", "Forget bundles and all their policies");
    const auto options = std::make_shared<BundlesOptions>();
    command->add_option("BUNDLE", options->bundleNames, "The bundles; either all are removed or none")
        ->required()
        ->option_text("...");
    command->footer("\nExample:\n  security-privacy-cli gtoken remove com.example.bank");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) { RunRemove(program, connection, *options); };
    });
}

}  // namespace

void AddGTokenCommands(CLI::App& app, Program& program)
{
    CLI::App* gtoken = app.add_subcommand("gtoken", "GToken policies of bundles: add, get, remove");
    gtoken->require_subcommand(1);
    AddAdd(*gtoken, program);
    AddGet(*gtoken, program);
    AddRemove(*gtoken, program);
}

}  // namespace SecurityPrivacyExample
