#pragma once
// The core library's own way to the process's domain. Not part of the interface.

#include "vex/core/dom.h"

namespace VexCore {

/// Holds the process's root domain: the first root that is alive. False when there is none (before the host made one,
/// or after it was released); then nothing may be read through it. Short-lived, on the stack: while one exists, the
/// domain does. Any thread.
///
///     RootDom root;
///     if (root)
///         root->GetSetting("app.unzip.maxbytes", maxBytes);
class RootDom
{
public:
    RootDom();
    ~RootDom();
    RootDom(const RootDom&) = delete;
    RootDom& operator=(const RootDom&) = delete;

    explicit operator bool() const { return m_dom != nullptr; }
    CDom* operator->() const { return m_dom; }
    CDom& operator*() const { return *m_dom; }

private:
    CDom* m_dom;
};

} // namespace VexCore
