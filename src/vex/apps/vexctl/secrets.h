#pragma once
// What nobody else is to read in what is passed on: values whose names say that they are secret. It is a net with
// meshes: a secret under another name goes through.

#include "vex/apps/vexctl/json_text.h"

#include <string>
#include <string_view>

namespace Vexctl {

/// What stands in place of a secret.
constexpr const char* maskedText = "***";

/// Whether a name has one of the words "password", "secret", "token", "key" and the like in it, in any case.
bool IsSecretName(std::string_view name);

/// Lines of any text: what follows such a name and "=" or ":", or such an option and a blank, the password in an
/// address, and private keys are masked.
std::string MaskSecrets(std::string_view text);

/// The same for a file of settings, where a value reaches to the end of its line.
std::string MaskSettings(std::string_view text);

/// Values of fields with such names are masked, and what their texts say elsewhere.
Json MaskedJson(const Json& json);

} // namespace Vexctl
