// A small programmable PKCS#11 token for tests: its PKCS#11 side, with scripted failures and
// a call log. Tests drive it through the tp_* functions of testprov_control.cpp.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "testprov_state.h"

namespace testprov {

std::mutex mu;
State st;

Slot* findSlot(CK_SLOT_ID id) {
    for (Slot& s : st.slots)
        if (s.id == id) return &s;
    return nullptr;
}

Token* findToken(CK_SLOT_ID id) {
    Slot* s = findSlot(id);
    return s ? s->token.get() : nullptr;
}

Object* findObject(CK_OBJECT_HANDLE h) {
    auto it = st.objects.find(h);
    return it == st.objects.end() ? nullptr : &it->second;
}

namespace {

// ---- Readable call records -----------------------------------------------------------------

std::string hexBytes(const void* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        unsigned char b = static_cast<const unsigned char*>(p)[i];
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

std::string hexNum(CK_ULONG v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%lx", v);
    return buf;
}

// clang-format off
#define TP_NAME(x) {x, #x}
std::string rvName(CK_RV rv) {
    static const std::map<CK_RV, const char*> names = {
        TP_NAME(CKR_OK), TP_NAME(CKR_CANCEL), TP_NAME(CKR_HOST_MEMORY), TP_NAME(CKR_GENERAL_ERROR),
        TP_NAME(CKR_FUNCTION_FAILED), TP_NAME(CKR_ARGUMENTS_BAD), TP_NAME(CKR_SLOT_ID_INVALID),
        TP_NAME(CKR_ATTRIBUTE_SENSITIVE), TP_NAME(CKR_ATTRIBUTE_TYPE_INVALID), TP_NAME(CKR_DATA_LEN_RANGE),
        TP_NAME(CKR_DEVICE_ERROR), TP_NAME(CKR_FUNCTION_NOT_SUPPORTED), TP_NAME(CKR_KEY_HANDLE_INVALID),
        TP_NAME(CKR_KEY_TYPE_INCONSISTENT), TP_NAME(CKR_KEY_FUNCTION_NOT_PERMITTED),
        TP_NAME(CKR_MECHANISM_INVALID), TP_NAME(CKR_OBJECT_HANDLE_INVALID), TP_NAME(CKR_OPERATION_ACTIVE),
        TP_NAME(CKR_OPERATION_NOT_INITIALIZED), TP_NAME(CKR_PIN_INCORRECT), TP_NAME(CKR_PIN_INVALID),
        TP_NAME(CKR_PIN_LEN_RANGE), TP_NAME(CKR_PIN_EXPIRED), TP_NAME(CKR_PIN_LOCKED),
        TP_NAME(CKR_SESSION_HANDLE_INVALID), TP_NAME(CKR_SESSION_PARALLEL_NOT_SUPPORTED),
        TP_NAME(CKR_TOKEN_NOT_PRESENT), TP_NAME(CKR_USER_ALREADY_LOGGED_IN), TP_NAME(CKR_USER_NOT_LOGGED_IN),
        TP_NAME(CKR_USER_TYPE_INVALID), TP_NAME(CKR_BUFFER_TOO_SMALL), TP_NAME(CKR_CRYPTOKI_NOT_INITIALIZED),
        TP_NAME(CKR_CRYPTOKI_ALREADY_INITIALIZED)};
    auto it = names.find(rv);
    return it != names.end() ? it->second : hexNum(rv);
}

std::string attrName(CK_ATTRIBUTE_TYPE t) {
    static const std::map<CK_ATTRIBUTE_TYPE, const char*> names = {
        TP_NAME(CKA_CLASS), TP_NAME(CKA_TOKEN), TP_NAME(CKA_PRIVATE), TP_NAME(CKA_LABEL), TP_NAME(CKA_VALUE),
        TP_NAME(CKA_CERTIFICATE_TYPE), TP_NAME(CKA_ISSUER), TP_NAME(CKA_SERIAL_NUMBER), TP_NAME(CKA_KEY_TYPE),
        TP_NAME(CKA_SUBJECT), TP_NAME(CKA_ID), TP_NAME(CKA_SENSITIVE), TP_NAME(CKA_SIGN), TP_NAME(CKA_MODULUS),
        TP_NAME(CKA_PUBLIC_EXPONENT), TP_NAME(CKA_EC_PARAMS), TP_NAME(CKA_EC_POINT),
        TP_NAME(CKA_GOSTR3410_PARAMS), TP_NAME(CKA_GOSTR3411_PARAMS)};
    auto it = names.find(t);
    return it != names.end() ? it->second : hexNum(t);
}
#undef TP_NAME
// clang-format on

// Built by each entry point: arguments before the call, results after it.
class Call {
public:
    explicit Call(const char* name, bool needsInit = true) : needsInit_(needsInit) {
        std::strncpy(r_.c.name, name, sizeof r_.c.name - 1);
    }
    const char* name() const { return r_.c.name; }
    bool needsInit() const { return needsInit_; }
    tp_call& c() { return r_.c; }

    Call& arg(const std::string& name, const std::string& value) {
        args_ += (args_.empty() ? "" : ", ") + name + "=" + value;
        return *this;
    }
    Call& out(const std::string& name, const std::string& value) {
        outs_ += ", " + name + "=" + value;
        return *this;
    }
    Call& slot(CK_SLOT_ID id) {
        r_.c.slot = id;
        return arg("slotID", std::to_string(id));
    }
    Call& session(CK_SESSION_HANDLE h) {
        r_.c.session = h;
        return arg("hSession", std::to_string(h));
    }
    Call& object(const char* name, CK_OBJECT_HANDLE h) {
        r_.c.object = h;
        return arg(name, std::to_string(h));
    }
    Call& pointer(const char* name, const void* p) {
        r_.c.null_ptr = p == nullptr;
        return arg(name, p ? "ptr" : "NULL");
    }
    Call& inLen(const char* name, const CK_ULONG* len) {
        if (len) r_.c.in_len = *len;
        return arg(name, len ? std::to_string(*len) : "NULL");
    }
    Call& outLen(const char* name, const CK_ULONG* len) {
        if (len) r_.c.out_len = *len;
        return out(name, len ? std::to_string(*len) : "NULL");
    }
    // Records a template; `values` copies the bytes of each pValue.
    Call& templ(const CK_ATTRIBUTE* t, CK_ULONG n, bool values) {
        r_.c.attr_count = t ? n : 0;
        std::string s = "[";
        for (CK_ULONG i = 0; t && i < n && i < TP_MAX_ATTRS; ++i) {
            r_.c.attr_types[i] = t[i].type;
            r_.c.attr_lens[i] = t[i].ulValueLen;
            r_.c.attr_null[i] = t[i].pValue == nullptr;
            s += (i ? ", " : "") + attrName(t[i].type);
            if (!t[i].pValue)
                s += "(NULL, " + std::to_string(t[i].ulValueLen) + ")";
            else if (values)
                s += "=" + hexBytes(t[i].pValue, t[i].ulValueLen);
            else
                s += "(" + std::to_string(t[i].ulValueLen) + ")";
            r_.values.push_back(values && t[i].pValue
                                    ? Bytes(static_cast<unsigned char*>(t[i].pValue),
                                            static_cast<unsigned char*>(t[i].pValue) + t[i].ulValueLen)
                                    : Bytes());
        }
        return arg("pTemplate", t ? s + "]" : "NULL");
    }
    void setValue(size_t i, const void* p, CK_ULONG n) {
        if (i < r_.values.size())
            r_.values[i].assign(static_cast<const unsigned char*>(p),
                                static_cast<const unsigned char*>(p) + n);
    }
    Record finish(CK_RV rv) {
        r_.c.rv = rv;
        r_.text = std::string(r_.c.name) + "(" + args_ + ") = " + rvName(rv) + outs_;
        return r_;
    }

private:
    Record r_{};
    std::string args_, outs_;
    bool needsInit_;
};

// True (with rv set) when a failure rule covers this call; counts the call either way.
bool scripted(const char* name, CK_RV* rv) {
    unsigned n = ++st.callsByName[name];
    unsigned all = ++st.calls;
    bool hit = false;
    for (auto it = st.rules.rbegin(); it != st.rules.rend() && !hit; ++it)
        if (it->function == name && it->covers(n)) {
            *rv = it->rv;
            hit = true;
        }
    if (!hit && st.anyRuleSet && st.anyRule.covers(all)) {
        *rv = st.anyRule.rv;
        ++st.anyFired;
        hit = true;
    }
    return hit;
}

template <class Body, class OnFailure>
CK_RV run(Call& call, Body body, OnFailure onScriptedFailure) {
    std::lock_guard<std::mutex> lock(mu);
    CK_RV rv;
    if (scripted(call.name(), &rv))
        onScriptedFailure(rv);
    else if (call.needsInit() && !st.initialized)
        rv = CKR_CRYPTOKI_NOT_INITIALIZED;
    else
        rv = body();
    st.log.push_back(call.finish(rv));
    return rv;
}

template <class Body>
CK_RV run(Call& call, Body body) {
    return run(call, body, [](CK_RV) {});
}

// ---- State lookups (caller holds mu) -------------------------------------------------------

Session* findSession(CK_SESSION_HANDLE h) {
    auto it = st.sessions.find(h);
    return it == st.sessions.end() ? nullptr : &it->second;
}

// The session, with its slot noted in the call record.
Session* sessionOf(Call& c, CK_SESSION_HANDLE h) {
    Session* s = findSession(h);
    if (s) c.c().slot = s->slot;
    return s;
}

bool attrTrue(const Object& o, CK_ATTRIBUTE_TYPE t) {
    auto it = o.attrs.find(t);
    return it != o.attrs.end() && !it->second.empty() && it->second[0] != CK_FALSE;
}

// PKCS#11 logs a token out when its last session closes.
void closeSession(CK_SESSION_HANDLE h) {
    CK_SLOT_ID slot = st.sessions.at(h).slot;
    st.sessions.erase(h);
    for (const auto& s : st.sessions)
        if (s.second.slot == slot) return;
    if (Token* t = findToken(slot)) t->loggedIn = false;
}

// Length-query semantics shared by the list functions.
template <class T>
CK_RV fillList(const std::vector<T>& items, T* out, CK_ULONG* count) {
    if (!count) return CKR_ARGUMENTS_BAD;
    CK_ULONG room = *count;
    *count = items.size();
    if (!out) return CKR_OK;
    if (room < items.size()) return CKR_BUFFER_TOO_SMALL;
    std::copy(items.begin(), items.end(), out);
    return CKR_OK;
}

// ---- PKCS#11 entry points -------------------------------------------------------------------

namespace prov {

CK_RV C_Initialize(CK_VOID_PTR args) {
    Call c("C_Initialize", false);
    c.pointer("pInitArgs", args);
    return run(
        c,
        [&] {
            st.initArgs = args;
            if (st.initialized) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
            auto* a = static_cast<CK_C_INITIALIZE_ARGS*>(args);
            if (a && a->pReserved) return CKR_ARGUMENTS_BAD;
            st.initialized = true;
            ++st.inits;
            return CKR_OK;
        },
        [&](CK_RV) { st.initArgs = args; });
}

CK_RV C_Finalize(CK_VOID_PTR reserved) {
    Call c("C_Finalize");
    c.pointer("pReserved", reserved);
    return run(c, [&] {
        if (reserved) return CKR_ARGUMENTS_BAD;
        st.sessions.clear();
        for (Slot& s : st.slots)
            if (s.token) s.token->loggedIn = false;
        st.initialized = false;
        ++st.finals;
        return CKR_OK;
    });
}

CK_RV C_GetInfo(CK_INFO_PTR info) {
    Call c("C_GetInfo");
    c.pointer("pInfo", info);
    return run(c, [&] {
        if (!info) return CKR_ARGUMENTS_BAD;
        *info = CK_INFO{};
        info->cryptokiVersion = {2, 20};
        tp::pad(info->manufacturerID, "Zorvo test");
        tp::pad(info->libraryDescription, "zorvo programmable test token");
        info->libraryVersion = {1, 0};
        return CKR_OK;
    });
}

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
    Call c("C_GetSlotList");
    c.c().flags = tokenPresent;
    c.arg("tokenPresent", std::to_string(tokenPresent)).pointer("pSlotList", list).inLen("*pulCount", count);
    return run(c, [&] {
        std::vector<CK_SLOT_ID> ids;
        for (const Slot& s : st.slots)
            if (!tokenPresent || s.token) ids.push_back(s.id);
        CK_RV rv = fillList(ids, list, count);
        c.outLen("*pulCount", count);
        return rv;
    });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID id, CK_SLOT_INFO_PTR info) {
    Call c("C_GetSlotInfo");
    c.slot(id).pointer("pInfo", info);
    return run(c, [&] {
        Slot* s = findSlot(id);
        if (!s) return CKR_SLOT_ID_INVALID;
        if (!info) return CKR_ARGUMENTS_BAD;
        *info = s->info;
        return CKR_OK;
    });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID id, CK_TOKEN_INFO_PTR info) {
    Call c("C_GetTokenInfo");
    c.slot(id).pointer("pInfo", info);
    return run(c, [&] {
        Slot* s = findSlot(id);
        if (!s) return CKR_SLOT_ID_INVALID;
        if (!s->token) return CKR_TOKEN_NOT_PRESENT;
        if (!info) return CKR_ARGUMENTS_BAD;
        *info = s->token->info;
        return CKR_OK;
    });
}

CK_RV C_GetMechanismList(CK_SLOT_ID id, CK_MECHANISM_TYPE_PTR list, CK_ULONG_PTR count) {
    Call c("C_GetMechanismList");
    c.slot(id).pointer("pMechanismList", list).inLen("*pulCount", count);
    return run(c, [&] {
        Slot* s = findSlot(id);
        if (!s) return CKR_SLOT_ID_INVALID;
        if (!s->token) return CKR_TOKEN_NOT_PRESENT;
        std::vector<CK_MECHANISM_TYPE> types;
        for (const auto& m : s->token->mechanisms) types.push_back(m.first);
        CK_RV rv = fillList(types, list, count);
        c.outLen("*pulCount", count);
        return rv;
    });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID id, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info) {
    Call c("C_GetMechanismInfo");
    c.c().mechanism = type;
    c.slot(id).arg("type", hexNum(type)).pointer("pInfo", info);
    return run(c, [&] {
        Slot* s = findSlot(id);
        if (!s) return CKR_SLOT_ID_INVALID;
        if (!s->token) return CKR_TOKEN_NOT_PRESENT;
        if (!info) return CKR_ARGUMENTS_BAD;
        for (const auto& m : s->token->mechanisms)
            if (m.first == type) {
                *info = m.second;
                return CKR_OK;
            }
        return CKR_MECHANISM_INVALID;
    });
}

CK_RV C_OpenSession(CK_SLOT_ID id, CK_FLAGS flags, CK_VOID_PTR app, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR out) {
    Call c("C_OpenSession");
    c.c().flags = flags;
    c.slot(id).arg("flags", hexNum(flags)).arg("pApplication", app ? "ptr" : "NULL");
    c.arg("Notify", notify ? "ptr" : "NULL").pointer("phSession", out);
    return run(c, [&] {
        Slot* s = findSlot(id);
        if (!s) return CKR_SLOT_ID_INVALID;
        if (!s->token) return CKR_TOKEN_NOT_PRESENT;
        if (!(flags & CKF_SERIAL_SESSION)) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
        if (!out) return CKR_ARGUMENTS_BAD;
        Session session{};
        session.slot = id;
        session.flags = flags;
        *out = st.nextSession++;
        st.sessions[*out] = session;
        c.c().session = *out;
        c.out("*phSession", std::to_string(*out));
        return CKR_OK;
    });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE h) {
    Call c("C_CloseSession");
    c.session(h);
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        closeSession(h);
        return CKR_OK;
    });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID id) {
    Call c("C_CloseAllSessions");
    c.slot(id);
    return run(c, [&] {
        if (!findSlot(id)) return CKR_SLOT_ID_INVALID;
        std::vector<CK_SESSION_HANDLE> doomed;
        for (const auto& s : st.sessions)
            if (s.second.slot == id) doomed.push_back(s.first);
        for (CK_SESSION_HANDLE h : doomed) closeSession(h);
        return CKR_OK;
    });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE h, CK_SESSION_INFO_PTR info) {
    Call c("C_GetSessionInfo");
    c.session(h).pointer("pInfo", info);
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        if (!info) return CKR_ARGUMENTS_BAD;
        bool rw = s->flags & CKF_RW_SESSION;
        bool user = findToken(s->slot)->loggedIn;
        info->slotID = s->slot;
        info->state = user ? (rw ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS)
                           : (rw ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION);
        info->flags = st.sessionFlagsSet ? st.sessionFlags : s->flags;
        info->ulDeviceError = 0;
        return CKR_OK;
    });
}

CK_RV C_Login(CK_SESSION_HANDLE h, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG len) {
    Call c("C_Login");
    c.c().flags = user;
    c.c().in_len = len;
    c.session(h).arg("userType", std::to_string(user)).pointer("pPin", pin);
    if (pin) c.arg("pin", "\"" + std::string(reinterpret_cast<char*>(pin), len) + "\"");
    c.arg("ulPinLen", std::to_string(len));
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        Token* t = findToken(s->slot);
        if (user != CKU_USER) return CKR_USER_TYPE_INVALID;
        if (!pin && len) return CKR_ARGUMENTS_BAD;
        if (t->loggedIn) return CKR_USER_ALREADY_LOGGED_IN;
        if (Bytes(pin, pin + (pin ? len : 0)) != t->pin) return CKR_PIN_INCORRECT;
        t->loggedIn = true;
        return CKR_OK;
    });
}

CK_RV C_Logout(CK_SESSION_HANDLE h) {
    Call c("C_Logout");
    c.session(h);
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        Token* t = findToken(s->slot);
        if (!t->loggedIn) return CKR_USER_NOT_LOGGED_IN;
        t->loggedIn = false;
        return CKR_OK;
    });
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE h, CK_OBJECT_HANDLE obj, CK_ATTRIBUTE_PTR t, CK_ULONG n) {
    Call c("C_GetAttributeValue");
    c.session(h).object("hObject", obj).templ(t, n, false).arg("ulCount", std::to_string(n));
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        Object* o = findObject(obj);
        if (!o || o->slot != s->slot) return CKR_OBJECT_HANDLE_INVALID;
        if (!t && n) return CKR_ARGUMENTS_BAD;
        CK_RV rv = CKR_OK;
        std::string lens;
        for (CK_ULONG i = 0; i < n; ++i) {
            auto it = o->attrs.find(t[i].type);
            if (it == o->attrs.end()) {
                t[i].ulValueLen = CK_UNAVAILABLE_INFORMATION;
                rv = CKR_ATTRIBUTE_TYPE_INVALID;
            } else if (!t[i].pValue) {
                t[i].ulValueLen = it->second.size();
            } else if (t[i].ulValueLen < it->second.size()) {
                t[i].ulValueLen = CK_UNAVAILABLE_INFORMATION;
                rv = CKR_BUFFER_TOO_SMALL;
            } else {
                std::copy(it->second.begin(), it->second.end(), static_cast<unsigned char*>(t[i].pValue));
                c.setValue(i, it->second.data(), it->second.size());
                t[i].ulValueLen = st.attrLenExtra ? t[i].ulValueLen + st.attrLenExtra : it->second.size();
            }
            lens += (i ? ", " : "") + std::to_string(CK_LONG(t[i].ulValueLen));
        }
        c.out("ulValueLen", "[" + lens + "]");
        return rv;
    });
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE h, CK_ATTRIBUTE_PTR t, CK_ULONG n) {
    Call c("C_FindObjectsInit");
    c.session(h).templ(t, n, true).arg("ulCount", std::to_string(n));
    c.c().in_len = n;
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        if (s->finding) return CKR_OPERATION_ACTIVE;
        if (!t && n) return CKR_ARGUMENTS_BAD;
        s->found.clear();
        s->next = 0;
        for (const auto& o : st.objects) {
            bool match = o.second.slot == s->slot;
            for (CK_ULONG i = 0; match && i < n; ++i) {
                auto it = o.second.attrs.find(t[i].type);
                const auto* v = static_cast<const unsigned char*>(t[i].pValue);
                match =
                    it != o.second.attrs.end() && it->second.size() == t[i].ulValueLen &&
                    (t[i].ulValueLen == 0 || (v && std::equal(v, v + t[i].ulValueLen, it->second.begin())));
            }
            if (match) s->found.push_back(o.first);
        }
        s->finding = true;
        return CKR_OK;
    });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE h, CK_OBJECT_HANDLE_PTR out, CK_ULONG max, CK_ULONG_PTR count) {
    Call c("C_FindObjects");
    c.c().in_len = max;
    c.session(h).pointer("phObject", out).arg("ulMaxObjectCount", std::to_string(max));
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        if (!s->finding) return CKR_OPERATION_NOT_INITIALIZED;
        if (!count || (!out && max)) return CKR_ARGUMENTS_BAD;
        CK_ULONG n = std::min<CK_ULONG>(max, s->found.size() - s->next);
        std::copy_n(s->found.begin() + s->next, n, out);
        s->next += n;
        *count = n && st.findCountExtra ? max + st.findCountExtra : n;
        if (n) c.c().object = out[0];
        if (n) c.out("phObject[0]", std::to_string(out[0]));
        c.outLen("*pulObjectCount", count);
        return CKR_OK;
    });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE h) {
    Call c("C_FindObjectsFinal");
    c.session(h);
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        if (!s->finding) return CKR_OPERATION_NOT_INITIALIZED;
        s->finding = false;
        s->found.clear();
        return CKR_OK;
    });
}

CK_RV C_SignInit(CK_SESSION_HANDLE h, CK_MECHANISM_PTR mech, CK_OBJECT_HANDLE key) {
    Call c("C_SignInit");
    if (mech) c.c().mechanism = mech->mechanism;
    c.session(h).arg("mechanism", mech ? hexNum(mech->mechanism) : "NULL").object("hKey", key);
    return run(c, [&] {
        Session* s = sessionOf(c, h);
        if (!s) return CKR_SESSION_HANDLE_INVALID;
        if (!mech) return CKR_ARGUMENTS_BAD;
        if (s->signKey) return CKR_OPERATION_ACTIVE;
        Object* o = findObject(key);
        if (!o || o->slot != s->slot || !o->key) return CKR_KEY_HANDLE_INVALID;
        if (o->attrs.count(CKA_SIGN) && !attrTrue(*o, CKA_SIGN)) return CKR_KEY_FUNCTION_NOT_PERMITTED;
        if (CK_RV rv = o->key->accepts(mech->mechanism)) return rv;
        if (attrTrue(*o, CKA_PRIVATE) && !findToken(s->slot)->loggedIn) return CKR_USER_NOT_LOGGED_IN;
        s->signKey = o->key;
        return CKR_OK;
    });
}

CK_RV C_Sign(CK_SESSION_HANDLE h, CK_BYTE_PTR data, CK_ULONG len, CK_BYTE_PTR sig, CK_ULONG_PTR sigLen) {
    Call c("C_Sign");
    c.c().in_len = sigLen ? *sigLen : 0;
    c.session(h).arg("pData", data ? hexBytes(data, len) : "NULL").arg("ulDataLen", std::to_string(len));
    c.pointer("pSignature", sig).inLen("*pulSignatureLen", sigLen);
    auto end = [&](CK_RV rv) {
        Session* s = findSession(h);
        if (s && rv != CKR_BUFFER_TOO_SMALL) s->signKey.reset();
    };
    return run(
        c,
        [&] {
            Session* s = findSession(h);
            if (!s) return CKR_SESSION_HANDLE_INVALID;
            c.c().slot = s->slot;
            if (!s->signKey) return CKR_OPERATION_NOT_INITIALIZED;
            CK_RV rv = CKR_OK;
            CK_ULONG need = s->signKey->signatureLength();
            if (!sigLen || (!data && len)) {
                rv = CKR_ARGUMENTS_BAD;
            } else if (!sig) {
                *sigLen = need;
                return CKR_OK;  // a length query keeps the operation
            } else if (*sigLen < need) {
                *sigLen = need;
                rv = CKR_BUFFER_TOO_SMALL;
            } else {
                rv = s->signKey->sign(data, len, sig);
                if (rv == CKR_OK) *sigLen = need;
            }
            c.outLen("*pulSignatureLen", sigLen);
            end(rv);
            return rv;
        },
        end);
}

// Everything else the list carries: logged, scriptable, not supported.
// clang-format off
#define TP_UNSUPPORTED(fn, params)                                      \
    CK_RV fn params {                                                   \
        Call c(#fn, false);                                             \
        return run(c, [] { return CK_RV(CKR_FUNCTION_NOT_SUPPORTED); }); \
    }
TP_UNSUPPORTED(C_InitToken, (CK_SLOT_ID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR))
TP_UNSUPPORTED(C_InitPIN, (CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG))
TP_UNSUPPORTED(C_SetPIN, (CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR, CK_ULONG))
TP_UNSUPPORTED(C_GetOperationState, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_SetOperationState, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_CreateObject, (CK_SESSION_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR))
TP_UNSUPPORTED(C_CopyObject, (CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR))
TP_UNSUPPORTED(C_DestroyObject, (CK_SESSION_HANDLE, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_GetObjectSize, (CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ULONG_PTR))
TP_UNSUPPORTED(C_SetAttributeValue, (CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_EncryptInit, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_Encrypt, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_EncryptUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_EncryptFinal, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DecryptInit, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_Decrypt, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DecryptUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DecryptFinal, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DigestInit, (CK_SESSION_HANDLE, CK_MECHANISM_PTR))
TP_UNSUPPORTED(C_Digest, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DigestUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_DigestKey, (CK_SESSION_HANDLE, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_DigestFinal, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_SignUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_SignFinal, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_SignRecoverInit, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_SignRecover, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_VerifyInit, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_Verify, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_VerifyUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_VerifyFinal, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_VerifyRecoverInit, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE))
TP_UNSUPPORTED(C_VerifyRecover, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DigestEncryptUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DecryptDigestUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_SignEncryptUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_DecryptVerifyUpdate, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR))
TP_UNSUPPORTED(C_GenerateKey, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR))
TP_UNSUPPORTED(C_GenerateKeyPair, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_ATTRIBUTE_PTR,
                                   CK_ULONG, CK_OBJECT_HANDLE_PTR, CK_OBJECT_HANDLE_PTR))
TP_UNSUPPORTED(C_WrapKey, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE, CK_BYTE_PTR,
                           CK_ULONG_PTR))
TP_UNSUPPORTED(C_UnwrapKey, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG,
                             CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR))
TP_UNSUPPORTED(C_DeriveKey, (CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG,
                             CK_OBJECT_HANDLE_PTR))
TP_UNSUPPORTED(C_SeedRandom, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_GenerateRandom, (CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG))
TP_UNSUPPORTED(C_GetFunctionStatus, (CK_SESSION_HANDLE))
TP_UNSUPPORTED(C_CancelFunction, (CK_SESSION_HANDLE))
TP_UNSUPPORTED(C_WaitForSlotEvent, (CK_FLAGS, CK_SLOT_ID_PTR, CK_VOID_PTR))
#undef TP_UNSUPPORTED
// clang-format on

}  // namespace prov

// Every member of the list but C_GetFunctionList, in the list's order.
// clang-format off
#define TP_FUNCTIONS(X)                                                                                        \
    X(C_Initialize) X(C_Finalize) X(C_GetInfo) X(C_GetSlotList) X(C_GetSlotInfo) X(C_GetTokenInfo)             \
    X(C_GetMechanismList) X(C_GetMechanismInfo) X(C_InitToken) X(C_InitPIN) X(C_SetPIN) X(C_OpenSession)       \
    X(C_CloseSession) X(C_CloseAllSessions) X(C_GetSessionInfo) X(C_GetOperationState)                          \
    X(C_SetOperationState) X(C_Login) X(C_Logout) X(C_CreateObject) X(C_CopyObject) X(C_DestroyObject)         \
    X(C_GetObjectSize) X(C_GetAttributeValue) X(C_SetAttributeValue) X(C_FindObjectsInit) X(C_FindObjects)      \
    X(C_FindObjectsFinal) X(C_EncryptInit) X(C_Encrypt) X(C_EncryptUpdate) X(C_EncryptFinal) X(C_DecryptInit)  \
    X(C_Decrypt) X(C_DecryptUpdate) X(C_DecryptFinal) X(C_DigestInit) X(C_Digest) X(C_DigestUpdate)            \
    X(C_DigestKey) X(C_DigestFinal) X(C_SignInit) X(C_Sign) X(C_SignUpdate) X(C_SignFinal)                     \
    X(C_SignRecoverInit) X(C_SignRecover) X(C_VerifyInit) X(C_Verify) X(C_VerifyUpdate) X(C_VerifyFinal)       \
    X(C_VerifyRecoverInit) X(C_VerifyRecover) X(C_DigestEncryptUpdate) X(C_DecryptDigestUpdate)                \
    X(C_SignEncryptUpdate) X(C_DecryptVerifyUpdate) X(C_GenerateKey) X(C_GenerateKeyPair) X(C_WrapKey)         \
    X(C_UnwrapKey) X(C_DeriveKey) X(C_SeedRandom) X(C_GenerateRandom) X(C_GetFunctionStatus)                   \
    X(C_CancelFunction) X(C_WaitForSlotEvent)
// clang-format on

// Built once, so callers may read it while others call C_GetFunctionList.
CK_FUNCTION_LIST* fullList(CK_C_GetFunctionList self) {
    static CK_FUNCTION_LIST list = [self] {
        CK_FUNCTION_LIST l{};
        l.version = {2, 20};
        l.C_GetFunctionList = self;
#define TP_SET(fn) l.fn = prov::fn;
        TP_FUNCTIONS(TP_SET)
#undef TP_SET
        return l;
    }();
    return &list;
}

// The full list, or a copy with the entries named by tp_misbehave_null_functions left NULL.
CK_FUNCTION_LIST* listToHandOut(CK_C_GetFunctionList self) {
    static CK_FUNCTION_LIST degraded;
    if (st.nullFunctions.empty()) return fullList(self);
    degraded = *fullList(self);
#define TP_NULL(fn) \
    if (st.nullFunctions.count(#fn)) degraded.fn = nullptr;
    TP_NULL(C_GetFunctionList)
    TP_FUNCTIONS(TP_NULL)
#undef TP_NULL
    return &degraded;
}

}  // namespace
}  // namespace testprov

using namespace testprov;

// ---- Exported entry point --------------------------------------------------------------------

TP_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
    Call c("C_GetFunctionList", false);
    c.pointer("ppFunctionList", list);
    return run(c, [&] {
        if (!list) return CKR_ARGUMENTS_BAD;
        *list = listToHandOut(&C_GetFunctionList);
        return CKR_OK;
    });
}
