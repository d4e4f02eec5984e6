#pragma once
// Path templates: "@" in a path list stands for the name of each enabled plugin. For settings.cpp and its test alone.

#include <wx/arrstr.h>
#include <wx/string.h>

// Splits at each separator. Empty pieces count, but for the one behind a separator that ends the text; blanks stay.
static wxArrayString SplitKeepingEmpty(const wxString& text, wxUniChar separator)
{
    wxArrayString pieces;
    wxString piece;
    for (const wxUniChar c : text) {
        if (c == separator) {
            pieces.push_back(piece);
            piece.clear();
        } else {
            piece += c;
        }
    }
    if (!piece.empty())
        pieces.push_back(piece);
    return pieces;
}

// The path list with every entry repeated for each plugin, in the order of the entries first and the plugins second,
// and "@" replaced by the plugin's name. An entry without "@" is repeated too, on purpose: templates and plain entries
// are not told apart. Without plugins the path comes back as it is.
static wxString ExpandPathPlugins(wxString& path, wxString& plugins)
{
    if (plugins.empty())
        return path;
    const wxArrayString names = SplitKeepingEmpty(plugins, ',');
    wxString expanded;
    for (const wxString& entry : SplitKeepingEmpty(path, ';')) {
        for (const wxString& name : names) {
            if (!expanded.empty())
                expanded += ';';
            wxString copy = entry;
            copy.Replace("@", name);
            expanded += copy;
        }
    }
    return expanded;
}
