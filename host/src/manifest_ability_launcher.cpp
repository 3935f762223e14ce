// Manifests: reading and checking the files, and the abilities they name.
#include "manifest_ability_launcher.h"

#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "json_text.h"

namespace QUEX::Tandra {

namespace {

bool Fail(std::string* error, const std::string& file, const std::string& message)
{
    if (error != nullptr) {
        *error = "ability manifest " + file + ": " + message;
    }
    return false;
}

// Replaces every "${name}"; false with the offending name when a variable is unknown.
bool Substitute(const std::string& text, const ManifestAbilityLauncher::Variables& variables, std::string* out,
                std::string* unknown)
{
    out->clear();
    size_t at = 0;
    while (true) {
        size_t open = text.find("${", at);
        if (open == std::string::npos) {
            out->append(text, at, std::string::npos);
            return true;
        }
        size_t close = text.find('}', open + 2);
        if (close == std::string::npos) {
            *unknown = text.substr(open);
            return false;
        }
        std::string name = text.substr(open + 2, close - open - 2);
        auto value = variables.find(name);
        if (value == variables.end()) {
            *unknown = name;
            return false;
        }
        out->append(text, at, open - at).append(value->second);
        at = close + 1;
    }
}

bool ReadString(const Json::Value& root, const char* key, bool required, std::string* out, const std::string& file,
                std::string* error)
{
    const Json::Value& value = root[key];
    if (value.isNull() && !required) {
        return true;
    }
    if (!value.isString() || (required && value.asString().empty())) {
        return Fail(error, file, std::string("\"") + key + "\" must be a " + (required ? "non-empty " : "") +
                                     "string");
    }
    *out = value.asString();
    return true;
}

}  // namespace

bool ManifestAbilityLauncher::ParseManifest(const std::string& file, const Variables& variables,
                                            AbilityManifest* manifest, std::string* error)
{
    std::ifstream in(file);
    if (!in.is_open()) {
        return Fail(error, file, "cannot be read; check that it exists and is readable");
    }
    std::stringstream text;
    text << in.rdbuf();
    Json::Value root;
    std::string parseErrors;
    if (!Vex::ParseJsonText(text.str(), &root, &parseErrors)) {
        return Fail(error, file, "is not valid JSON: " + parseErrors);
    }
    if (!root.isObject()) {
        return Fail(error, file, "must hold one JSON object");
    }
    manifest->file = file;
    AbilityInfo& info = manifest->info;
    if (!ReadString(root, "bundle", true, &info.bundleName, file, error) ||
        !ReadString(root, "ability", true, &info.abilityName, file, error) ||
        !ReadString(root, "module", false, &info.moduleName, file, error) ||
        !ReadString(root, "action", false, &info.action, file, error) ||
        !ReadString(root, "type", false, &info.abilityType, file, error)) {
        return false;
    }
    const Json::Value& exec = root["exec"];
    if (!exec.isObject() || !exec["path"].isString() || exec["path"].asString().empty()) {
        return Fail(error, file, "\"exec\" must be an object with a non-empty \"path\" string");
    }
    std::string unknown;
    if (!Substitute(exec["path"].asString(), variables, &manifest->execPath, &unknown)) {
        return Fail(error, file, "unknown placeholder \"" + unknown + "\" in exec.path");
    }
    const Json::Value& args = exec["args"];
    if (!args.isNull() && !args.isArray()) {
        return Fail(error, file, "\"exec.args\" must be an array of strings");
    }
    manifest->execArgs.clear();
    for (const Json::Value& arg : args) {
        std::string value;
        if (!arg.isString()) {
            return Fail(error, file, "\"exec.args\" must be an array of strings");
        }
        if (!Substitute(arg.asString(), variables, &value, &unknown)) {
            return Fail(error, file, "unknown placeholder \"" + unknown + "\" in exec.args");
        }
        manifest->execArgs.push_back(std::move(value));
    }
    if (manifest->execPath.front() != '/') {
        return Fail(error, file, "exec.path \"" + manifest->execPath + "\" must be absolute");
    }
    if (access(manifest->execPath.c_str(), X_OK) != 0) {
        return Fail(error, file, "program " + manifest->execPath + " is missing or not executable; install or "
                                 "build it, or fix exec.path");
    }
    return true;
}

std::unique_ptr<ManifestAbilityLauncher> ManifestAbilityLauncher::Load(const std::string& folder,
                                                                       const Variables& variables, std::string* error)
{
    std::error_code ec;
    std::vector<std::string> files;
    for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() == ".json") {
            files.push_back(it->path().string());
        }
    }
    if (ec) {
        if (error != nullptr) {
            *error = "ability manifest folder " + folder + " cannot be read (" + ec.message() +
                     "); create it or point the configuration at the right folder";
        }
        return nullptr;
    }
    std::sort(files.begin(), files.end());
    std::vector<AbilityManifest> manifests;
    for (const std::string& file : files) {
        AbilityManifest manifest;
        if (!ParseManifest(file, variables, &manifest, error)) {
            return nullptr;
        }
        for (const auto& earlier : manifests) {
            if (earlier.info.bundleName == manifest.info.bundleName &&
                earlier.info.abilityName == manifest.info.abilityName) {
                Fail(error, file, "names " + manifest.info.bundleName + "/" + manifest.info.abilityName +
                                      " again, already named by " + earlier.file + "; remove one of them");
                return nullptr;
            }
        }
        manifests.push_back(std::move(manifest));
    }
    return std::unique_ptr<ManifestAbilityLauncher>(new ManifestAbilityLauncher(std::move(manifests)));
}

ManifestAbilityLauncher::ManifestAbilityLauncher(std::vector<AbilityManifest> manifests)
    : manifests_(std::move(manifests))
{
}

std::vector<AbilityInfo> ManifestAbilityLauncher::GetAbilities() const
{
    std::vector<AbilityInfo> abilities;
    for (const auto& manifest : manifests_) {
        abilities.push_back(manifest.info);
    }
    return abilities;
}

std::string ManifestAbilityLauncher::BundleForExecutable(const std::string& path) const
{
    std::error_code ec;
    const std::filesystem::path executable = std::filesystem::canonical(path, ec);
    if (ec) {
        return std::string();
    }
    for (const auto& manifest : manifests_) {
        std::error_code manifestEc;
        if (std::filesystem::canonical(manifest.execPath, manifestEc) == executable && !manifestEc) {
            return manifest.info.bundleName;
        }
    }
    return std::string();
}

}  // namespace QUEX::Tandra
