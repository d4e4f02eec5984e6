#pragma once
// Which extensions are enabled: the rules and their texts, for the list of archives and for vexctl.

#include <wx/string.h>

/// Why an archive that a pattern has found is not enabled, by the version file beside it; empty where it is. The
/// framework logs for itself when the version file cannot be opened.
wxString WhyVersionIsRefused(const wxString& archive);

/// Why a path cannot stand in the list of archives, where it would be taken for two others; empty where it can.
wxString WhyPathIsRefused(const wxString& path);
