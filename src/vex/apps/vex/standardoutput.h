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
        m_stream.reset(new FlushedStream(m_file));
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
    // The framework's own does not tell when what the file held back could not be written.
    class FlushedStream : public wxFFileOutputStream
    {
    public:
        using wxFFileOutputStream::wxFFileOutputStream;
        void Sync() override
        {
            if (!m_file->Flush())
                m_lasterror = wxSTREAM_WRITE_ERROR;
        }
    };

    wxFFile m_file; // its destructor would close what it still holds
    std::unique_ptr<wxFFileOutputStream> m_stream;
};
