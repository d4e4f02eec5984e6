// The domain: one table of keys, shared by a root and the views of it.

#include "vex_core/domain/root_dom.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/dom_observer.h"
#include "vex_core/domain/dom_text.h"
#include "vex_core/domain/dom_values.h"
#include "vex_core/domain/key_table.h"
#include "vex_core/domain/setting_value.h"
#include "vex_core/domain/settings.h"
#include "vex_core/domain/settings_sources.h"
#include "vex_core/domain/wait_list.h"
#include "vex_core/domain/work_folder.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string_view>

namespace VexCore {

namespace {
// A full key. A root's key is used as it came; a view's is put together, on the stack where it fits, so that a read
// allocates nothing.
class FullKey
{
public:
    FullKey(const std::string& prefix, std::string_view own)
    {
        if (prefix.empty()) {
            m_text = own;
            return;
        }
        const std::size_t size = prefix.size() + 1 + own.size();
        char* target = m_short;
        if (size > sizeof m_short) {
            m_long.resize(size);
            target = m_long.data();
        }
        std::memcpy(target, prefix.data(), prefix.size());
        target[prefix.size()] = '.';
        if (!own.empty())
            std::memcpy(target + prefix.size() + 1, own.data(), own.size());
        m_text = std::string_view(target, size);
    }
    FullKey(const FullKey&) = delete;
    FullKey& operator=(const FullKey&) = delete;

    operator std::string_view() const { return m_text; }
    std::string_view operator*() const { return m_text; }

private:
    std::string_view m_text;
    std::string m_long;
    char m_short[256];
};

// The keys and values of one tree, and who is told when one is written.
class DomStore
{
public:
    DomStore() : m_waits(std::make_shared<WaitList>()) {}

    // Calls `use` with the value, while others write. False when the key has none.
    template <typename Use>
    bool Read(std::string_view key, Use&& use) const
    {
        return m_keys.Read(key, std::forward<Use>(use));
    }

    void Write(const HashedKey& key, DomValue::Pointer value)
    {
        m_keys.Write(key, std::move(value));
        Changed(key);
    }

    void WriteText(const HashedKey& key, std::string_view text)
    {
        m_keys.WriteText(key, text);
        Changed(key);
    }

    bool Remove(const HashedKey& key)
    {
        if (!m_keys.Remove(key))
            return false;
        Changed(key);
        return true;
    }

    const KeyTable& Keys() const { return m_keys; }
    WaitList& Waits() { return *m_waits; }
    SettingsSources& Settings() { return m_settings; }
    // Where they lie now, empty while that is not known.
    SettingsPaths PathsOfSettings() const { return {PathIn("app.path.ini"), PathIn("app.path.ini.global")}; }

private:
    std::string PathIn(std::string_view key) const
    {
        std::string path;
        Read(key, [&path](const DomValue& held) { return TextOf(held, path); });
        return path.empty() ? path : ToSystemBytes(FromForeignBytes(path));
    }

    // Who begins to observe or to wait puts that down and then looks at the value; we have put the value down and look
    // who observes. One sees the other, because the lock of the table's writers is given back in between, by a step
    // that all processors see.
    void Changed(const HashedKey& key)
    {
        TellObservers(this, key);
        m_waits->Written(key.text);
    }

    KeyTable m_keys;
    const std::shared_ptr<WaitList> m_waits;
    SettingsSources m_settings;
};

} // namespace

struct CDom::Impl
{
    std::shared_ptr<DomStore> store;
    std::string prefix; // of a view; empty in a root
    bool root = false;
    std::atomic<int> references{1};

    FullKey Key(std::string_view key) const { return FullKey(prefix, key); }
    FullKey Key(const char* key) const { return Key(key ? std::string_view(key) : std::string_view()); }
};

// What the rest of the core library does to a domain beyond the interface, and the list of live roots.
struct DomAccess
{
    // One more reference, unless the last one is already gone.
    static bool TryAddRef(CDom& dom)
    {
        int count = dom.m_impl->references.load();
        while (count > 0)
            if (dom.m_impl->references.compare_exchange_weak(count, count + 1))
                return true;
        return false;
    }

    // What observers know the tree of `dom` by.
    static const void* Tree(const CDom& dom) { return dom.m_impl->store.get(); }
    static DomStore& Store(const CDom& dom) { return *dom.m_impl->store; }
    static FullKey Key(const CDom& dom, std::string_view key) { return dom.m_impl->Key(key); }
    static std::vector<std::string> FullKeys(const CDom& dom, const std::vector<std::string>& keys,
                                             std::vector<std::string> rootKeys)
    {
        for (const std::string& key : keys)
            rootKeys.emplace_back(std::string_view(dom.m_impl->Key(key.c_str())));
        return rootKeys;
    }

    struct Roots
    {
        std::mutex lock;
        std::vector<CDom*> live; // in the order of their making
    };
    // Never destroyed: lines are logged while the process ends.
    static Roots& LiveRoots()
    {
        static Roots& s_roots = *new Roots;
        return s_roots;
    }

    static CDom* ProcessRoot()
    {
        Roots& roots = LiveRoots();
        const std::lock_guard lock(roots.lock);
        for (CDom* const dom : roots.live)
            if (TryAddRef(*dom))
                return dom;
        return nullptr;
    }

    static void AddRoot(CDom* dom)
    {
        Roots& roots = LiveRoots();
        const std::lock_guard lock(roots.lock);
        roots.live.push_back(dom);
    }

    static void RemoveRoot(CDom* dom)
    {
        Roots& roots = LiveRoots();
        const std::lock_guard lock(roots.lock);
        roots.live.erase(std::find(roots.live.begin(), roots.live.end(), dom));
    }
};

DomObserver::DomObserver(const CDom& dom, const std::vector<std::string>& keys, std::function<void()> changed,
                         const std::vector<std::string>& rootKeys)
    : DomObserver(DomAccess::Tree(dom), DomAccess::FullKeys(dom, keys, rootKeys), std::move(changed))
{}

DomText::DomText(const CDom& dom, std::string_view key)
{
    DomAccess::Store(dom).Read(*DomAccess::Key(dom, key), [this](const DomValue& held) {
        const TextOfValue read(held);
        if (!read)
            return false;
        const std::string_view text = read.Text();
        if (text.size() > sizeof m_short) {
            m_text = m_long.assign(text);
            return true;
        }
        std::memcpy(m_short, text.data(), text.size());
        m_text = std::string_view(m_short, text.size());
        return true;
    });
}

std::vector<std::string> SettingKeys(const CDom& dom, const std::string& prefix)
{
    std::vector<std::string> keys = dom.Keys(prefix.c_str());
    DomStore& store = DomAccess::Store(dom);
    const std::string start = prefix + '.';
    // The files' names are the same in any case: an entry has nothing to say about a key that the domain has.
    std::set<std::string, LessInAnyCase> known(keys.begin(), keys.end());
    for (const std::string& name : store.Settings().NamesThatBegin(store.PathsOfSettings(), start))
        if (const std::string key = start + name.substr(start.size()); known.insert(key).second)
            keys.push_back(key);
    std::sort(keys.begin(), keys.end());
    return keys;
}

std::uint64_t SettingsGeneration(const CDom& dom)
{
    DomStore& store = DomAccess::Store(dom);
    return store.Settings().Generation(store.PathsOfSettings());
}

std::vector<SettingsSource> SourcesOfSettings(const CDom& dom)
{
    DomStore& store = DomAccess::Store(dom);
    return store.Settings().Sources(store.PathsOfSettings());
}

RootDom::RootDom() : m_dom(DomAccess::ProcessRoot()) {}

RootDom::~RootDom()
{
    if (m_dom)
        m_dom->Release();
}

CDomObject::~CDomObject() = default;

// --- life

CDom::CDom() : m_impl(new Impl) {}

CDom::~CDom() = default;

CDom* CDom::New(const char* name, CDom* parent, bool* created, bool)
{
    CDom* const dom = new CDom;
    Impl& own = *dom->m_impl;
    if (!parent) {
        own.store = std::make_shared<DomStore>();
        own.root = true;
        DomAccess::AddRoot(dom);
        TellObserversOfRoots();
        if (created)
            *created = true;
        return dom;
    }
    own.store = parent->m_impl->store;
    own.prefix = name && *name ? std::string(std::string_view(parent->m_impl->Key(name))) : parent->m_impl->prefix;
    if (created)
        *created = !own.store->Keys().HasAnyIn(own.prefix);
    return dom;
}

void CDom::AddRef()
{
    ++m_impl->references;
}

void CDom::Release()
{
    if (--m_impl->references > 0)
        return;
    const bool wasRoot = m_impl->root;
    if (wasRoot)
        DomAccess::RemoveRoot(this);
    delete this;
    if (wasRoot)
        TellObserversOfRoots();
}

// --- writing

void CDom::Set(const char* key, const char* text)
{
    Set(key, text, text ? std::strlen(text) : 0);
}

void CDom::Set(const char* key, const char* text, std::size_t length)
{
    m_impl->store->WriteText(*m_impl->Key(key), text ? std::string_view(text, length) : std::string_view());
}

void CDom::Set(const char* key, const std::string& text)
{
    m_impl->store->WriteText(*m_impl->Key(key), text);
}

void CDom::Set(const char* key, bool value)
{
    m_impl->store->Write(*m_impl->Key(key), DomValue::NewBool(value));
}

void CDom::SetWx(const char* key, const wxString& text)
{
    m_impl->store->WriteText(*m_impl->Key(key), BytesFromText(text));
}

void CDom::SetWx(const char* key, std::int64_t value)
{
    m_impl->store->Write(*m_impl->Key(key), DomValue::NewInt(value));
}

void CDom::SetObject(const char* key, std::shared_ptr<CDomObject> object)
{
    m_impl->store->Write(*m_impl->Key(key), DomValue::NewObject(std::move(object)));
}

bool CDom::Remove(const char* key)
{
    return m_impl->store->Remove(*m_impl->Key(key));
}

// --- reading

std::string CDom::Get(const char* key) const
{
    std::string text;
    Get(key, text);
    return text;
}

bool CDom::Get(const char* key, std::string& text) const
{
    return m_impl->store->Read(*m_impl->Key(key), [&](const DomValue& value) { return TextOf(value, text); });
}

bool CDom::Get(const char* key, bool& value) const
{
    return m_impl->store->Read(*m_impl->Key(key), [&](const DomValue& held) { return BoolOf(held, value); });
}

bool CDom::Get(const char* key, std::int64_t& value) const
{
    return m_impl->store->Read(*m_impl->Key(key), [&](const DomValue& held) { return IntOf(held, value); });
}

wxString CDom::GetWxString(const char* key) const
{
    return FromForeignBytes(Get(key));
}

std::shared_ptr<CDomObject> CDom::GetObject(const char* key) const
{
    std::shared_ptr<CDomObject> object;
    m_impl->store->Read(*m_impl->Key(key), [&](const DomValue& held) {
        if (held.Type() == EType::Object)
            object = held.Object();
        return true;
    });
    return object;
}

CDom::EType CDom::TypeOf(const char* key) const
{
    EType type = EType::Absent;
    m_impl->store->Read(*m_impl->Key(key), [&](const DomValue& held) {
        type = held.Type();
        return true;
    });
    return type;
}

std::vector<std::string> CDom::Keys(const char* prefix) const
{
    const std::string& view = m_impl->prefix;
    const std::size_t skip = view.empty() ? 0 : view.size() + 1;
    if (!prefix || !*prefix)
        return m_impl->store->Keys().KeysThatBegin(view.empty() ? view : view + '.', skip);
    return m_impl->store->Keys().KeysThatBegin(std::string(std::string_view(m_impl->Key(prefix))) + '.', skip);
}

// --- settings

namespace {
SettingKind KindOf(std::string_view key, SettingKind kindOfOthers)
{
    const Setting* const setting = FindSetting(key);
    return setting ? setting->kind : kindOfOthers;
}

} // namespace

bool CDom::GetSetting(const char* key, std::string& text) const
{
    DomStore& store = *m_impl->store;
    const FullKey full = m_impl->Key(key);
    if (store.Read(full, [&text](const DomValue& held) { return TextOf(held, text); }))
        return true;
    return store.Settings().Find(store.PathsOfSettings(), full, text);
}

bool CDom::GetSetting(const char* key, bool& value) const
{
    std::string text;
    return GetSetting(key, text) && TruthFromSetting(KindOf(m_impl->Key(key), SettingKind::Flag), text, value);
}

bool CDom::GetSetting(const char* key, std::int64_t& value) const
{
    std::string text;
    return GetSetting(key, text) && IntegerFromSetting(KindOf(m_impl->Key(key), SettingKind::Number), text, value);
}

// --- waiting

CDom::EWait CDom::Wait(const char* key, std::int64_t timeoutMs) const
{
    std::size_t which = 0;
    return Wait({std::string(key ? key : "")}, timeoutMs, which);
}

CDom::EWait CDom::Wait(const std::vector<std::string>& keys, std::int64_t timeoutMs, std::size_t& which) const
{
    static_assert(maxWaitKeys == WaitList::maxScopes, "the one is the other's to tell");
    std::vector<std::string> scopes;
    for (const std::string& key : keys)
        scopes.emplace_back(key.empty() ? std::string_view(m_impl->prefix)
                                        : std::string_view(m_impl->Key(key.c_str())));
    switch (m_impl->store->Waits().Wait(scopes, timeoutMs, which)) {
    case WaitList::Result::Written:
        return EWait::Written;
    case WaitList::Result::Ending:
        return EWait::Ending;
    case WaitList::Result::TimedOut:
        break;
    }
    return EWait::TimedOut;
}

// --- folders

std::string CDom::GetPluginWorkdir(const std::string& plugin) const
{
    std::string path;
    std::string breach;
    MakePluginWorkdir(*this, plugin, path, breach);
    return path;
}

wxString CDom::GetPluginWorkdirWx(const wxString& plugin) const
{
    const bool hasNul = plugin.find(wxUniChar(0)) != wxString::npos;
    return FromSystemBytes(GetPluginWorkdir(hasNul ? std::string() : ToSystemBytes(plugin)));
}

} // namespace VexCore
