// The control side of the test provider: the tp_* functions that tests call.
#include <algorithm>
#include <cstring>
#include <sstream>

#include "testprov_state.h"

using namespace testprov;

namespace {

CK_TOKEN_INFO defaultTokenInfo() {
    CK_TOKEN_INFO ti{};
    tp::pad(ti.label, "zorvo test token");
    tp::pad(ti.manufacturerID, "Zorvo test");
    tp::pad(ti.model, "testprov");
    tp::pad(ti.serialNumber, "0001");
    tp::pad(ti.utcTime, "");
    ti.flags = CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    ti.ulMaxPinLen = 64;
    ti.ulMinPinLen = 4;
    return ti;
}

template <class F>
auto locked(F f) {
    std::lock_guard<std::mutex> lock(mu);
    return f();
}

template <class F>
int withObject(CK_OBJECT_HANDLE h, F f) {
    std::lock_guard<std::mutex> lock(mu);
    Object* o = findObject(h);
    return o && f(*o) ? 0 : -1;
}

template <class F>
int withSlot(CK_SLOT_ID id, F f) {
    std::lock_guard<std::mutex> lock(mu);
    Slot* s = findSlot(id);
    return s && f(*s) ? 0 : -1;
}

// Finds the index-th record of `function` (all records when null).
const Record* findRecord(const char* function, size_t index) {
    for (const Record& r : st.log)
        if (!function || std::strcmp(r.c.name, function) == 0) {
            if (index == 0) return &r;
            --index;
        }
    return nullptr;
}

int copyOut(const std::string& s, char* buf, size_t size) {
    if (buf && size) {
        size_t n = std::min(s.size(), size - 1);
        std::memcpy(buf, s.data(), n);
        buf[n] = '\0';
    }
    return int(s.size());
}

}  // namespace

// ---- Control interface -----------------------------------------------------------------------

TP_EXPORT void tp_reset(void) {
    std::lock_guard<std::mutex> lock(mu);
    st = State();
}

TP_EXPORT int tp_add_slot(CK_SLOT_ID id, const CK_SLOT_INFO* info) {
    std::lock_guard<std::mutex> lock(mu);
    if (findSlot(id)) return -1;
    Slot s{id, {}, nullptr};
    if (info) {
        s.info = *info;
    } else {
        tp::pad(s.info.slotDescription, "Zorvo test slot " + std::to_string(id));
        tp::pad(s.info.manufacturerID, "Zorvo test");
        s.info.flags = CKF_HW_SLOT | CKF_REMOVABLE_DEVICE;
    }
    st.slots.push_back(std::move(s));
    return 0;
}

TP_EXPORT int tp_set_slot_info(CK_SLOT_ID id, const CK_SLOT_INFO* info) {
    return withSlot(id, [&](Slot& s) { return info && (s.info = *info, true); });
}

TP_EXPORT int tp_add_token(CK_SLOT_ID id, const CK_TOKEN_INFO* info) {
    return withSlot(id, [&](Slot& s) {
        if (s.token) return false;
        s.token.reset(new Token{info ? *info : defaultTokenInfo(), {'1', '2', '3', '4'}, {}, false});
        s.info.flags |= CKF_TOKEN_PRESENT;
        return true;
    });
}

TP_EXPORT int tp_set_token_info(CK_SLOT_ID id, const CK_TOKEN_INFO* info) {
    return withSlot(id, [&](Slot& s) { return s.token && info && (s.token->info = *info, true); });
}

TP_EXPORT int tp_remove_token(CK_SLOT_ID id) {
    return withSlot(id, [&](Slot& s) {
        if (!s.token) return false;
        for (auto it = st.objects.begin(); it != st.objects.end();)
            it = it->second.slot == id ? st.objects.erase(it) : std::next(it);
        for (auto it = st.sessions.begin(); it != st.sessions.end();)
            it = it->second.slot == id ? st.sessions.erase(it) : std::next(it);
        s.token.reset();
        s.info.flags &= ~CK_FLAGS(CKF_TOKEN_PRESENT);
        return true;
    });
}

TP_EXPORT int tp_set_pin(CK_SLOT_ID id, const void* pin, size_t len) {
    return withSlot(id, [&](Slot& s) {
        if (!s.token || (!pin && len)) return false;
        auto* p = static_cast<const unsigned char*>(pin);
        s.token->pin.assign(p, p + len);
        return true;
    });
}

TP_EXPORT int tp_add_mechanism(CK_SLOT_ID id, CK_MECHANISM_TYPE type, const CK_MECHANISM_INFO* info) {
    return withSlot(id, [&](Slot& s) {
        if (!s.token) return false;
        s.token->mechanisms.push_back({type, info ? *info : CK_MECHANISM_INFO{}});
        return true;
    });
}

TP_EXPORT CK_OBJECT_HANDLE tp_add_object(CK_SLOT_ID id, const CK_ATTRIBUTE* attrs, CK_ULONG count) {
    std::lock_guard<std::mutex> lock(mu);
    if (!findToken(id) || (!attrs && count)) return 0;
    Object o{id, {}, nullptr};
    for (CK_ULONG i = 0; i < count; ++i) {
        auto* p = static_cast<const unsigned char*>(attrs[i].pValue);
        o.attrs[attrs[i].type] = p ? Bytes(p, p + attrs[i].ulValueLen) : Bytes();
    }
    CK_OBJECT_HANDLE h = st.nextObject++;
    st.objects[h] = std::move(o);
    return h;
}

TP_EXPORT int tp_set_attribute(CK_OBJECT_HANDLE h, CK_ATTRIBUTE_TYPE type, const void* value, CK_ULONG len) {
    return withObject(h, [&](Object& o) {
        auto* p = static_cast<const unsigned char*>(value);
        o.attrs[type] = p ? Bytes(p, p + len) : Bytes();
        return true;
    });
}

TP_EXPORT int tp_remove_attribute(CK_OBJECT_HANDLE h, CK_ATTRIBUTE_TYPE type) {
    return withObject(h, [&](Object& o) { return o.attrs.erase(type) == 1; });
}

TP_EXPORT int tp_remove_object(CK_OBJECT_HANDLE h) {
    return locked([&] { return st.objects.erase(h) == 1 ? 0 : -1; });
}

TP_EXPORT int tp_set_rsa_key(CK_OBJECT_HANDLE h, const void* key, size_t len) {
    return withObject(h, [&](Object& o) { return (o.key = testprov::rsaKey(key, len)) != nullptr; });
}

TP_EXPORT int tp_set_gost_key(CK_OBJECT_HANDLE h, const char* curve, const void* d, size_t len) {
    return withObject(h, [&](Object& o) { return (o.key = testprov::gostKey(curve, d, len)) != nullptr; });
}

TP_EXPORT int tp_initialize_count(void) {
    return locked([&] { return st.inits; });
}

TP_EXPORT int tp_finalize_count(void) {
    return locked([&] { return st.finals; });
}

TP_EXPORT void* tp_last_init_args(void) {
    return locked([&] { return st.initArgs; });
}

TP_EXPORT int tp_is_initialized(void) {
    return locked([&] { return st.initialized; });
}

TP_EXPORT int tp_session_count(CK_SLOT_ID id) {
    std::lock_guard<std::mutex> lock(mu);
    return int(std::count_if(st.sessions.begin(), st.sessions.end(),
                             [&](const auto& s) { return id == CK_SLOT_ID(-1) || s.second.slot == id; }));
}

TP_EXPORT int tp_is_logged_in(CK_SLOT_ID id) {
    std::lock_guard<std::mutex> lock(mu);
    Token* t = findToken(id);
    return t && t->loggedIn;
}

TP_EXPORT void tp_set_session_info_flags(CK_FLAGS flags) {
    std::lock_guard<std::mutex> lock(mu);
    st.sessionFlagsSet = true;
    st.sessionFlags = flags;
}

TP_EXPORT void tp_fail_calls(const char* function, unsigned n, unsigned count, CK_RV rv) {
    std::lock_guard<std::mutex> lock(mu);
    if (!function || n == 0 || count == 0) return;
    st.rules.push_back({function, st.callsByName[function], n, n + count - 1, rv});
}

TP_EXPORT void tp_fail_nth(const char* function, unsigned n, CK_RV rv) {
    tp_fail_calls(function, n, 1, rv);
}

TP_EXPORT void tp_fail_from(const char* function, unsigned n, CK_RV rv) {
    std::lock_guard<std::mutex> lock(mu);
    if (!function || n == 0) return;
    st.rules.push_back({function, st.callsByName[function], n, 0, rv});
}

TP_EXPORT void tp_fail_any(unsigned n, unsigned count, CK_RV rv) {
    std::lock_guard<std::mutex> lock(mu);
    st.anyRuleSet = n != 0 && count != 0;
    st.anyRule = {"", st.calls, n, n + count - 1, rv};
    st.anyFired = 0;
}

TP_EXPORT int tp_fail_any_fired(void) {
    return locked([&] { return st.anyFired; });
}

TP_EXPORT void tp_clear_failures(void) {
    std::lock_guard<std::mutex> lock(mu);
    st.rules.clear();
    st.anyRuleSet = false;
}

TP_EXPORT void tp_misbehave_attr_len(CK_ULONG extra) {
    std::lock_guard<std::mutex> lock(mu);
    st.attrLenExtra = extra;
}

TP_EXPORT void tp_misbehave_find_count(CK_ULONG extra) {
    std::lock_guard<std::mutex> lock(mu);
    st.findCountExtra = extra;
}

TP_EXPORT void tp_misbehave_null_functions(const char* names) {
    std::lock_guard<std::mutex> lock(mu);
    st.nullFunctions.clear();
    std::istringstream in(names ? names : "");
    for (std::string name; std::getline(in, name, ',');)
        if (!name.empty()) st.nullFunctions.insert(name);
}

TP_EXPORT int tp_call_count(const char* function) {
    std::lock_guard<std::mutex> lock(mu);
    return int(std::count_if(st.log.begin(), st.log.end(), [&](const Record& r) {
        return !function || std::strcmp(r.c.name, function) == 0;
    }));
}

TP_EXPORT int tp_get_call(const char* function, size_t index, tp_call* out) {
    std::lock_guard<std::mutex> lock(mu);
    const Record* r = findRecord(function, index);
    if (!r || !out) return -1;
    *out = r->c;
    return 0;
}

TP_EXPORT int tp_call_text(const char* function, size_t index, char* buf, size_t size) {
    std::lock_guard<std::mutex> lock(mu);
    const Record* r = findRecord(function, index);
    return r ? copyOut(r->text, buf, size) : -1;
}

TP_EXPORT int tp_call_attr_value(const char* function, size_t index, size_t k, void* buf, size_t size) {
    std::lock_guard<std::mutex> lock(mu);
    const Record* r = findRecord(function, index);
    if (!r || k >= r->values.size()) return -1;
    const Bytes& v = r->values[k];
    if (buf) std::memcpy(buf, v.data(), std::min(size, v.size()));
    return int(v.size());
}

TP_EXPORT int tp_call_sequence(char* buf, size_t size) {
    std::lock_guard<std::mutex> lock(mu);
    std::string s;
    for (const Record& r : st.log) s += (s.empty() ? "" : ",") + std::string(r.c.name);
    return copyOut(s, buf, size);
}

TP_EXPORT void tp_clear_log(void) {
    std::lock_guard<std::mutex> lock(mu);
    st.log.clear();
}
