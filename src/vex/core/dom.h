#pragma once
// The domain: the tree of settings that the launcher, the core library and Lua code share.

#include "vex/core/export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <wx/string.h>

struct lua_State;

namespace VexCore {

class CAgentEvent;

/// Something that a key of the domain holds beside text, booleans and integers. Shared: it lives as long as the key or
/// any holder of the pointer.
class VEX_CORE_API CDomObject
{
public:
    virtual ~CDomObject();
};

/// A tree of named values. Keys are dotted texts in UTF-8 ("app.path.bin"); the dots make the tree, and a key may hold
/// a value and have children at once. Values are text (any bytes), boolean, 64-bit integer, or an object.
///
/// Every operation may be called from any thread. Reads do not block each other and allocate nothing beyond the text
/// that they return. A null or empty key is a key like any other, named "".
class VEX_CORE_API CDom
{
public:
    /// What `Wait` ended with.
    enum class EWait {
        Written, ///< the key, or a key below it, was written or removed meanwhile
        TimedOut, ///< the time is over
        Ending, ///< the calling thread is a CRunnable that has been asked to end
    };

    enum class EType { Absent, Text, Bool, Int, Object };

    /// Makes a domain. Without a parent it is a root, and the first live root is the process's own: logging, tracing
    /// and the database layer look there. With a parent and a name it is a view of the keys below `name` in the parent
    /// (for tests and tools); `created`, where given, tells whether a key below that name had to be made. `shared` is
    /// reserved and must be false.
    /// The caller holds one reference and gives it back through `Release`. Never null.
    static CDom* New(const char* name, CDom* parent, bool* created, bool shared);

protected:
    /// Only `Release` destroys a domain.
    virtual ~CDom();

public:
    /// Gives back the caller's reference; the last one destroys the domain. Must stay right after the destructor in
    /// the virtual table: hosts release through that slot.
    virtual void Release();
    /// Takes one more reference, for `Release`.
    void AddRef();

    /// Write a value: make the key or overwrite its value, and wake who waits for it. A null text is the empty text.
    void Set(const char* key, const char* text);
    void Set(const char* key, const char* text, std::size_t length);
    void Set(const char* key, const std::string& text);
    void Set(const char* key, bool value);
    /// Text is stored as UTF-8.
    void SetWx(const char* key, const wxString& text);
    void SetWx(const char* key, std::int64_t value);
    void SetObject(const char* key, std::shared_ptr<CDomObject> object);

    /// The value as text: true and false as "true" and "false", an integer in decimal. Empty when absent or an object.
    std::string Get(const char* key) const;
    /// The same, told apart from absence: false and `text` untouched when the key has no value that reads as text.
    bool Get(const char* key, std::string& text) const;
    /// Stores the value when the key holds a boolean, or a text "true"/"false", "1"/"0", "yes"/"no" in any case;
    /// anything else leaves `value` untouched and answers false. An integer 1 or 0 reads as its text would.
    bool Get(const char* key, bool& value) const;
    /// Stores the value when the key holds an integer, or a text that is a decimal integer from its first to its last
    /// character and fits; anything else leaves `value` untouched and answers false.
    bool Get(const char* key, std::int64_t& value) const;
    /// As `Get`, read as UTF-8. Bytes that are not UTF-8 are taken as Latin-1, so that nothing vanishes.
    wxString GetWxString(const char* key) const;
    std::shared_ptr<CDomObject> GetObject(const char* key) const;

    EType TypeOf(const char* key) const;
    bool Has(const char* key) const { return TypeOf(key) != EType::Absent; }
    /// Removes the key's value; its children stay. Answers whether it had one.
    bool Remove(const char* key);
    /// Full keys that have a value and lie below `prefix` in the tree ("a" finds "a.b", not "ab" nor "a" itself),
    /// sorted. An empty prefix lists all.
    std::vector<std::string> Keys(const char* prefix) const;

    /// A setting of the core library or of the bundled application: the key itself and, where it has no value, the
    /// entry of that name in the group [settings] of the configuration files: those that "app.path.ini" and
    /// "app.path.ini.global" name, and the drop-ins beside the latter. They are read once they are needed and again
    /// when they changed.
    bool GetSetting(const char* key, std::string& text) const;
    bool GetSetting(const char* key, bool& value) const;
    bool GetSetting(const char* key, std::int64_t& value) const;

    /// Sleeps until the key or a key below it is written or removed, `timeoutMs` is over (negative: no limit), or the
    /// calling thread, when it is a CRunnable, is asked to end. Costs no processor time while it sleeps.
    EWait Wait(const char* key, std::int64_t timeoutMs) const;
    /// The same for any of several keys, at most `maxWaitKeys`. With `Written`, `which` is the index of one that was;
    /// of others the next wait tells.
    EWait Wait(const std::vector<std::string>& keys, std::int64_t timeoutMs, std::size_t& which) const;
    static constexpr std::size_t maxWaitKeys = 16;

    /// "app.path.work"/plugins/`plugin`, made on demand with mode 0700. The path is returned even when it could not be
    /// made. A plugin name that is no plain file name (empty, ".", "..", with a "/") gives "app.path.work"/plugins.
    wxString GetPluginWorkdirWx(const wxString& plugin) const;
    /// The same in bytes, as file names are.
    std::string GetPluginWorkdir(const std::string& plugin) const;

    /// Installs a searcher into package.searchers of a Lua state, so that `require` finds modules inside the archives
    /// listed in "app.lua.zippath", and keeps package.path and package.cpath as `CLuaInterpreter::SetPackagePaths` left
    /// them. Call once a state, after SetPackagePaths. The domain must outlive the state.
    /// Raises a Lua error on failure.
    void RegisterLoader(lua_State* L);

    /// Records an agent event and returns its id, or 0 when it had to be kept in the pending file or in memory for now.
    /// Returns after the event is on stable storage, as far as any storage works. Never throws, never loses an event.
    std::int64_t AgentEventWrite(CAgentEvent& event);

    CDom(const CDom&) = delete;
    CDom& operator=(const CDom&) = delete;

private:
    CDom();
    struct Impl;
    friend struct DomAccess; // the core library's own way in; not part of the interface
    std::unique_ptr<Impl> m_impl;
};

} // namespace VexCore
