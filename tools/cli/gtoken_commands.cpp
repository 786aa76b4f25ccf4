// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "cli/output.h"
#include "cli/program.h"
#include "cli/remote_service.h"
#include "cli/value_text.h"
#include "common/json_input.h"
#include "security_privacy/contract.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"

namespace SecurityPrivacyTools {
namespace {

namespace Contract = VARN::AppSecurityPrivacy::SecurityPrivacyServer;
using Contract::GTokenInfo;
using Contract::GTokenPolicy;
using Contract::GTokenResult;
using Contract::GTokenResultWithRet;

constexpr size_t MAX_FINGERPRINT_BYTES = 4096;

struct AddPolicyOptions {
    GTokenInfo info;
    std::string fingerprintPath;
    std::string path;
};

struct BundlesOptions {
    std::string policyName;
    std::vector<std::string> bundleNames;
};

GTokenPolicy ParsePolicy(const std::string& text)
{
    GTokenPolicy policy;
    const size_t equals = text.rfind('=');
    const std::optional<int64_t> value =
        equals != std::string::npos ? ParseWhole<int64_t>(text.substr(equals + 1)) : std::nullopt;
    if (!value || equals == 0) {
        throw Failure(EXIT_USAGE,
                      "--policy: \"" + VisibleText(text) + "\" is not NAME=VALUE with a whole number as the value");
    }
    policy.policyName = text.substr(0, equals);
    policy.policyValue = *value;
    return policy;
}

std::vector<GTokenInfo> ReadInfos(const std::string& path)
{
    const JsonNode root = ReadJson(path);
    root.AllowOnly({"gTokens"});
    std::vector<GTokenInfo> infos;
    for (const JsonNode& item : root["gTokens"].Items()) {
        infos.push_back(ReadGTokenInfo(item));
        if (infos.back().policies.size() > Contract::MAX_POLICIES_SIZE) {
            item.Fail("more than " + std::to_string(Contract::MAX_POLICIES_SIZE) + " policies");
        }
    }
    if (infos.empty()) {
        throw InputError(path + ": there is nothing to add");
    }
    CheckLength(path, infos.size(), Contract::MAX_GTOKEN_REQUEST_SIZE);
    return infos;
}

GTokenInfo MakeInfo(const AddPolicyOptions& options)
{
    GTokenInfo info = options.info;
    if (!options.fingerprintPath.empty()) {
        const std::string path = options.fingerprintPath == "-" ? "/dev/stdin" : options.fingerprintPath;
        info.fingerprint = ReadFile(path, MAX_FINGERPRINT_BYTES);
        info.fingerprint.erase(info.fingerprint.find_last_not_of(" \t\r\n") + 1);
    }
    if (info.bundleName.empty() || info.fingerprint.empty()) {
        throw Failure(EXIT_USAGE,
                      "add needs --bundle and a --fingerprint-file (or --fingerprint) that is not empty, "
                      "or else --from; see 'gtoken add --help'");
    }
    return info;
}

// Sends a request without records, and tells how many bundles it was for.
void Change(const Program& program, const std::string& done, size_t count,
            const std::function<int64_t(Service&)>& request)
{
    Check(Ask(program.service, request));
    PrintResult(program.output, {{done, count}},
                done + ": " + std::to_string(count) + (count == 1 ? " bundle" : " bundles"));
}

void RunAdd(const Program& program, const AddPolicyOptions& options)
{
    const std::vector<GTokenInfo> infos =
        options.path.empty() ? std::vector<GTokenInfo>{MakeInfo(options)} : ReadInfos(options.path);
    Change(program, "added", infos.size(), [&](Service& service) { return service.GTokenPolicyAddPolicy(infos); });
}

void RunGet(const Program& program, const BundlesOptions& options)
{
    GTokenResultWithRet result;
    const Call call = Ask(program.service, [&](Service& service) {
        result = service.GTokenPolicyGetPolicy(options.policyName, options.bundleNames);
        return result.ret;
    });
    Check(call, result.gTokenResults.size());
    // The rows carry the bundles' fingerprints; they are not to be shown.
    const auto toJson = [&](size_t index) {
        const GTokenResult& row = result.gTokenResults[index];
        return Json{{"bundleName", row.bundleName},
                    {"versionCode", row.versionCode},
                    {"policyName", options.policyName},
                    {"policyValue", row.policyValue}};
    };
    PrintRecords(
        program.output, result.gTokenResults.size(),
        {{"BUNDLE", "bundleName"}, {"VERSION", "versionCode"}, {"POLICY", "policyName"}, {"VALUE", "policyValue"}},
        toJson);
}

void RunRemove(const Program& program, const BundlesOptions& options)
{
    const std::vector<std::string>& names = options.bundleNames;
    Change(program, "removed", names.size(), [&](Service& service) { return service.GTokenPolicyRemovePolicy(names); });
}

}  // namespace

void AddGTokenCommands(CLI::App& app, const Program& program)
{
    CLI::App* gtoken = app.add_subcommand("gtoken", "GToken policies of bundles: add, get, remove");
    gtoken->require_subcommand(1);

    auto [add, addOptions] = AddCommand(
        *gtoken, program, "add", "Set policies of one bundle, or of many from a file", RunAdd,
        "\nA bundle that is stored already has to have the same fingerprint; its version is replaced, and so are\n"
        "policies of the same name. Either all bundles of one call are stored or none. Fingerprints are never "
        "printed.\n"
        "\nThe file for --from:\n"
        "  {\"gTokens\": [{\"bundleName\": \"com.example.bank\", \"fingerprint\": \"4F21...\", \"versionCode\": 7,\n"
        "                \"policies\": {\"screen_capture\": 0}}]}\n"
        "\nExample:\n"
        "  security-privacy-cli gtoken add --bundle com.example.bank --version-code 7 \\\n"
        "      --fingerprint-file bank.fingerprint --policy screen_capture=0 --policy attestation=2");
    GTokenInfo& info = addOptions.info;
    CLI::Option* bundle = AddOption(add, "--bundle", info.bundleName, "BUNDLE", "The bundle");
    AddOption(add, "--version-code", info.versionCode, "N", "The bundle's version [0]");
    CLI::Option* file = AddOption(add, "--fingerprint-file", addOptions.fingerprintPath, "FILE",
                                  "File with the bundle's fingerprint; - for standard input");
    CLI::Option* fingerprint = AddOption(add, "--fingerprint", info.fingerprint, "TEXT",
                                         "The fingerprint itself: other users of the machine can see it");
    const auto takePolicies = [&info](const std::vector<std::string>& texts) {
        std::transform(texts.begin(), texts.end(), std::back_inserter(info.policies), ParsePolicy);
    };
    AddReader<std::vector<std::string>>(add, "--policy", takePolicies, "NAME=VALUE",
                                        "A policy and its value, a whole number; may be repeated",
                                        Contract::MAX_POLICIES_SIZE);
    AddOption(add, "--from", addOptions.path, "FILE",
              "JSON file of many bundles, see below; in place of the other options")
        ->excludes(bundle)
        ->excludes(file)
        ->excludes(fingerprint);
    fingerprint->excludes(file);

    auto [get, getOptions] =
        AddCommand(*gtoken, program, "get", "The value of a policy for bundles", RunGet,
                   "\nExample:\n  security-privacy-cli gtoken get screen_capture com.example.bank com.example.mail");
    AddOption(get, "POLICY", getOptions.policyName, " ", "Name of the policy");
    AddOption(get, "BUNDLE", getOptions.bundleNames, "...", "The bundles; one without the policy gives no row",
              Contract::MAX_GTOKEN_REQUEST_SIZE);

    auto [remove, removeOptions] =
        AddCommand(*gtoken, program, "remove", "Forget bundles and all their policies", RunRemove,
                   "\nExample:\n  security-privacy-cli gtoken remove com.example.bank");
    AddOption(remove, "BUNDLE", removeOptions.bundleNames, "...", "The bundles; either all are removed or none",
              Contract::MAX_GTOKEN_REQUEST_SIZE);
}

}  // namespace SecurityPrivacyTools
