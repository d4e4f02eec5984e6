#pragma once
// Standard output as a stream of the framework, for as long as a chunk runs.

#include <cstdio>
#include <memory>

#include <wx/ffile.h>
#include <wx/wfstream.h>

/// Lends standard output to a stream and leaves it open, also when an exception passes.
class StandardOutput
{
public:
    StandardOutput()
    {
        m_file.Attach(stdout, wxString());
        m_stream.reset(new wxFFileOutputStream(m_file));
    }
    ~StandardOutput()
    {
        m_stream.reset();
        m_file.Detach();
    }
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    wxFFileOutputStream& Stream() { return *m_stream; }

private:
    wxFFile m_file; // its destructor would close what it still holds
    std::unique_ptr<wxFFileOutputStream> m_stream;
};
