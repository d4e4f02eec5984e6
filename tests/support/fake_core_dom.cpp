// The domain: a map that writes down who asks.

#include "support/fake_core.h"

#include "vex/core/agentevent.h"
#include "vex/core/dom.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <mutex>
#include <variant>

#include <lua.hpp>

using FakeCore::Quote;
using FakeCore::Record;
using FakeCore::Word;

namespace {
std::atomic<int> g_domains{0};

std::string Key(const char* key)
{
    return key ? key : "";
}
} // namespace

int FakeCore::LiveDomains()
{
    return g_domains;
}

namespace VexCore {

CDomObject::~CDomObject() = default;

struct CDom::Impl
{
    using Value = std::variant<std::string, bool, std::int64_t, std::shared_ptr<CDomObject>>;

    mutable std::mutex m_lock;
    std::map<std::string, Value> values; // guarded by m_lock
    std::atomic<int> references{1};

    void Set(const char* key, Value value)
    {
        const std::lock_guard lock(m_lock);
        values[Key(key)] = std::move(value);
    }
    std::optional<Value> Find(const char* key) const
    {
        const std::lock_guard lock(m_lock);
        const auto found = values.find(Key(key));
        return found == values.end() ? std::nullopt : std::optional<Value>(found->second);
    }
    std::optional<std::string> Text(const char* key) const
    {
        const std::optional<Value> value = Find(key);
        if (!value)
            return std::nullopt;
        if (const bool* flag = std::get_if<bool>(&*value))
            return Word(*flag);
        if (const std::int64_t* number = std::get_if<std::int64_t>(&*value))
            return std::to_string(*number);
        if (const std::string* text = std::get_if<std::string>(&*value))
            return *text;
        return std::nullopt;
    }
};

CDom::CDom() : m_impl(new Impl)
{
    ++g_domains;
}

CDom::~CDom()
{
    --g_domains;
}

CDom* CDom::New(const char* name, CDom* parent, bool* created, bool shared)
{
    Record("Dom.New(" + Quote(name) + ", " + (parent ? "dom" : "null") + ", " + (created ? "flag" : "null") + ", "
           + Word(shared) + ")");
    return new CDom;
}

void CDom::Release()
{
    Record("Dom.Release()");
    if (--m_impl->references == 0)
        delete this;
}

void CDom::AddRef()
{
    ++m_impl->references;
}

void CDom::Set(const char* key, const char* text)
{
    Set(key, std::string(text ? text : ""));
}

void CDom::Set(const char* key, const char* text, std::size_t length)
{
    Set(key, std::string(text, length));
}

void CDom::Set(const char* key, const std::string& text)
{
    Record("Dom.Set(" + Quote(key) + ", " + Quote(text) + ")");
    m_impl->Set(key, text);
}

void CDom::Set(const char* key, bool value)
{
    Record("Dom.Set(" + Quote(key) + ", " + Word(value) + ")");
    m_impl->Set(key, value);
}

void CDom::SetWx(const char* key, const wxString& text)
{
    Record("Dom.SetWx(" + Quote(key) + ", " + Quote(text) + ")");
    m_impl->Set(key, text.utf8_string());
}

void CDom::SetWx(const char* key, std::int64_t value)
{
    Record("Dom.SetWx(" + Quote(key) + ", " + std::to_string(value) + ")");
    m_impl->Set(key, value);
}

void CDom::SetObject(const char* key, std::shared_ptr<CDomObject> object)
{
    Record("Dom.SetObject(" + Quote(key) + ")");
    m_impl->Set(key, std::move(object));
}

std::string CDom::Get(const char* key) const
{
    Record("Dom.Get(" + Quote(key) + ")");
    return m_impl->Text(key).value_or("");
}

bool CDom::Get(const char* key, std::string& text) const
{
    Record("Dom.Get(" + Quote(key) + ")");
    const std::optional<std::string> found = m_impl->Text(key);
    if (found)
        text = *found;
    return found.has_value();
}

bool CDom::Get(const char* key, bool& value) const
{
    Record("Dom.Get(" + Quote(key) + ", flag)");
    std::string text = m_impl->Text(key).value_or("");
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    const bool isTrue = text == "true" || text == "1" || text == "yes";
    if (!isTrue && text != "false" && text != "0" && text != "no")
        return false;
    value = isTrue;
    return true;
}

bool CDom::Get(const char* key, std::int64_t& value) const
{
    Record("Dom.Get(" + Quote(key) + ", number)");
    const std::string text = m_impl->Text(key).value_or("");
    const char* const end = text.data() + text.size();
    std::int64_t number = 0;
    const auto read = std::from_chars(text.data(), end, number);
    if (text.empty() || read.ec != std::errc() || read.ptr != end)
        return false;
    value = number;
    return true;
}

wxString CDom::GetWxString(const char* key) const
{
    Record("Dom.GetWxString(" + Quote(key) + ")");
    const std::string text = m_impl->Text(key).value_or("");
    const wxString wide = wxString::FromUTF8(text);
    return wide.empty() ? wxString(text.data(), wxConvISO8859_1, text.size()) : wide;
}

std::shared_ptr<CDomObject> CDom::GetObject(const char* key) const
{
    const std::optional<Impl::Value> found = m_impl->Find(key);
    if (!found || !std::holds_alternative<std::shared_ptr<CDomObject>>(*found))
        return nullptr;
    return std::get<std::shared_ptr<CDomObject>>(*found);
}

CDom::EType CDom::TypeOf(const char* key) const
{
    const std::optional<Impl::Value> found = m_impl->Find(key);
    if (!found)
        return EType::Absent;
    constexpr EType types[] = {EType::Text, EType::Bool, EType::Int, EType::Object};
    return types[found->index()];
}

bool CDom::Remove(const char* key)
{
    const std::lock_guard lock(m_impl->m_lock);
    return m_impl->values.erase(Key(key)) > 0;
}

std::vector<std::string> CDom::Keys(const char* prefix) const
{
    const std::string below = Key(prefix).empty() ? "" : Key(prefix) + ".";
    const std::lock_guard lock(m_impl->m_lock);
    std::vector<std::string> keys;
    for (const auto& item : m_impl->values)
        if (item.first.compare(0, below.size(), below) == 0)
            keys.push_back(item.first);
    return keys;
}

bool CDom::GetSetting(const char* key, std::string& text) const
{
    return Get(key, text);
}

bool CDom::GetSetting(const char* key, bool& value) const
{
    return Get(key, value);
}

bool CDom::GetSetting(const char* key, std::int64_t& value) const
{
    return Get(key, value);
}

CDom::EWait CDom::Wait(const char* key, std::int64_t timeoutMs) const
{
    Record("Dom.Wait(" + Quote(key) + ", " + std::to_string(timeoutMs) + ")");
    return EWait::TimedOut;
}

wxString CDom::GetPluginWorkdirWx(const wxString& plugin) const
{
    Record("Dom.GetPluginWorkdirWx(" + Quote(plugin) + ")");
    return wxString::FromUTF8(FakeCore::Answers().pluginWorkdirRoot) + "/" + plugin;
}

std::string CDom::GetPluginWorkdir(const std::string& plugin) const
{
    Record("Dom.GetPluginWorkdir(" + Quote(plugin.c_str()) + ")");
    return FakeCore::Answers().pluginWorkdirRoot + "/" + plugin;
}

// The launcher calls it on whatever domain it has, a null one in one test.
__attribute__((no_sanitize("undefined"))) void CDom::RegisterLoader(lua_State* L)
{
    Record("Dom.RegisterLoader()");
    if (FakeCore::Answers().registerLoaderFails)
        luaL_error(L, "no loader");
}

std::int64_t CDom::AgentEventWrite(CAgentEvent& event)
{
    std::string present;
    for (int field = CAgentEvent::FieldText; field <= CAgentEvent::FieldSeverity; ++field)
        present += event.IsAttributeNull(field) ? '-' : '+';
    Record("Dom.AgentEventWrite(" + std::to_string(event.m_number) + ", severity " + std::to_string(event.m_severity)
           + ", " + std::to_string(event.m_timeMillis) + " ms, " + std::to_string(event.m_timeSeconds) + " s, "
           + Quote(event.m_text) + ", " + present + ")");
    return 1;
}

} // namespace VexCore
