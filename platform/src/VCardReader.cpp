#include "VCardReader.h"

#include <pelio/CHandles.h>
#include <pelio/platform/Log.h>

#include <libebook-contacts/libebook-contacts.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <memory>
#include <sstream>

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string trim(const std::string& s) {
    const auto b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return {};
    const auto e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

// The attribute's values, in order.
std::vector<std::string> values(EVCardAttribute* attr) {
    std::vector<std::string> out;
    for (GList* v = e_vcard_attribute_get_values(attr); v; v = v->next) {
        out.emplace_back(v->data ? static_cast<const char*>(v->data) : "");
    }
    return out;
}

std::string firstValue(EVCardAttribute* attr) {
    auto v = values(attr);
    return v.empty() ? std::string() : trim(v.front());
}

// Values of the parameter named name (case-insensitive), lower case, split at commas.
std::vector<std::string> paramValues(EVCardAttribute* attr, const char* name) {
    std::vector<std::string> out;
    for (GList* p = e_vcard_attribute_get_params(attr); p; p = p->next) {
        auto* param = static_cast<EVCardAttributeParam*>(p->data);
        const char* pname = e_vcard_attribute_param_get_name(param);
        if (pname == nullptr || g_ascii_strcasecmp(pname, name) != 0)
            continue;
        for (GList* v = e_vcard_attribute_param_get_values(param); v; v = v->next) {
            std::stringstream ss(lower(v->data ? static_cast<const char*>(v->data) : ""));
            std::string item;
            while (std::getline(ss, item, ',')) {
                item = trim(item);
                if (!item.empty())
                    out.push_back(item);
            }
        }
    }
    return out;
}

bool isPreferred(EVCardAttribute* attr, const std::vector<std::string>& types) {
    if (std::find(types.begin(), types.end(), "pref") != types.end())
        return true;
    const auto pref = paramValues(attr, "PREF");
    return std::find(pref.begin(), pref.end(), "1") != pref.end();
}

int simpleType(const std::vector<std::string>& types) {
    int type = 0;
    for (const auto& t : types) {
        if (t == "home")
            type |= CONTACTS_NUMBER_TYPE_HOME;
        else if (t == "work")
            type |= CONTACTS_NUMBER_TYPE_WORK;
        else if (t != "pref" && t != "internet")
            type |= CONTACTS_NUMBER_TYPE_CUSTOM;
    }
    return type;
}

std::string composeName(const ContactName& n) {
    std::string out;
    for (const std::string* part : {&n.prefix, &n.first, &n.addition, &n.last, &n.suffix}) {
        if (part->empty())
            continue;
        if (!out.empty())
            out += ' ';
        out += *part;
    }
    return out;
}

bool isLine(const std::string& line, const char* what) {
    return g_ascii_strcasecmp(trim(line).c_str(), what) == 0;
}

}  // namespace

int VCardReader::numberType(const std::vector<std::string>& types, bool& isDefault,
                            std::string& label) {
    int type = 0;
    for (const auto& t : types) {
        if (t == "home")
            type |= CONTACTS_NUMBER_TYPE_HOME;
        else if (t == "work")
            type |= CONTACTS_NUMBER_TYPE_WORK;
        else if (t == "voice")
            type |= CONTACTS_NUMBER_TYPE_VOICE;
        else if (t == "fax")
            type |= CONTACTS_NUMBER_TYPE_FAX;
        else if (t == "msg")
            type |= CONTACTS_NUMBER_TYPE_MSG;
        else if (t == "cell")
            type |= CONTACTS_NUMBER_TYPE_CELL;
        else if (t == "pager")
            type |= CONTACTS_NUMBER_TYPE_PAGER;
        else if (t == "main")
            type |= CONTACTS_NUMBER_TYPE_MAIN;
        else if (t == "pref")
            isDefault = true;
        else {
            type |= CONTACTS_NUMBER_TYPE_CUSTOM;
            if (label.empty())
                label = t;
        }
    }
    return type;
}

namespace {

// A TEL line; only the card's first preferred number becomes its default one.
void addNumber(EVCardAttribute* attr, ParsedCard& card, bool& haveDefaultNumber) {
    ContactNumber number;
    number.number = firstValue(attr);
    if (number.number.empty())
        return;
    const auto types = paramValues(attr, "TYPE");
    bool preferred = isPreferred(attr, types);
    number.type = VCardReader::numberType(types, preferred, number.label);
    // Only the first preferred number is the default one.
    number.isDefault = preferred && !haveDefaultNumber;
    haveDefaultNumber = haveDefaultNumber || preferred;
    card.numbers.push_back(std::move(number));
}

void addEmail(EVCardAttribute* attr, ParsedCard& card) {
    ContactEmail email;
    email.email = firstValue(attr);
    if (email.email.empty())
        return;
    const auto types = paramValues(attr, "TYPE");
    email.type = simpleType(types);
    email.isDefault = isPreferred(attr, types);
    card.emails.push_back(std::move(email));
}

// An ADR line: its non-empty parts joined with ", ".
void addAddress(EVCardAttribute* attr, ParsedCard& card) {
    ContactAddress address;
    for (const auto& part : values(attr)) {
        const std::string p = trim(part);
        if (p.empty())
            continue;
        if (!address.text.empty())
            address.text += ", ";
        address.text += p;
    }
    if (address.text.empty())
        return;
    const auto types = paramValues(attr, "TYPE");
    address.type = simpleType(types);
    address.isDefault = isPreferred(attr, types);
    card.addresses.push_back(std::move(address));
}

}  // namespace

bool VCardReader::parseCard(const std::string& text, ParsedCard& card) {
    GObjectPtr<EVCard> vcard(e_vcard_new_from_string(text.c_str()));
    if (!vcard || e_vcard_get_attributes(vcard.get()) == nullptr)
        return false;

    std::string fn;
    bool haveDefaultNumber = false;
    for (GList* a = e_vcard_get_attributes(vcard.get()); a; a = a->next) {
        auto* attr = static_cast<EVCardAttribute*>(a->data);
        const char* rawName = e_vcard_attribute_get_name(attr);
        if (rawName == nullptr)
            continue;
        const std::string name = lower(rawName);
        if (name == "fn") {
            fn = firstValue(attr);
        } else if (name == "n") {
            auto v = values(attr);
            v.resize(5);
            card.name.last = trim(v[0]);
            card.name.first = trim(v[1]);
            card.name.addition = trim(v[2]);
            card.name.prefix = trim(v[3]);
            card.name.suffix = trim(v[4]);
        } else if (name == "uid") {
            card.uid = firstValue(attr);
        } else if (name == "x-phonetic-first-name") {
            card.name.phoneticFirst = firstValue(attr);
        } else if (name == "x-phonetic-middle-name") {
            card.name.phoneticMiddle = firstValue(attr);
        } else if (name == "x-phonetic-last-name") {
            card.name.phoneticLast = firstValue(attr);
        } else if (name == "x-favorite") {
            if (lower(firstValue(attr)) == "true")
                card.favorite = true;
        } else if (name == "categories") {
            for (const auto& c : values(attr)) {
                if (g_ascii_strcasecmp(trim(c).c_str(), "favorites") == 0)
                    card.favorite = true;
            }
        } else if (name == "tel") {
            addNumber(attr, card, haveDefaultNumber);
        } else if (name == "email") {
            addEmail(attr, card);
        } else if (name == "adr") {
            addAddress(attr, card);
        }
    }
    card.hasName = !composeName(card.name).empty();
    card.displayName = fn.empty() ? composeName(card.name) : fn;
    return true;
}

bool VCardReader::readFile(const std::string& absolutePath, const std::string& relativeFile,
                           const std::string& addressBook, std::vector<ParsedCard>& cards) {
    std::ifstream in(absolutePath, std::ios::binary);
    if (!in) {
        dlog_print(DLOG_WARN, kTag, "contacts: cannot read %s, skipped", absolutePath.c_str());
        return false;
    }
    std::string line, block;
    int depth = 0;
    int position = 0;
    bool strayText = false;
    auto finishBlock = [&](bool complete) {
        ParsedCard card;
        if (complete && parseCard(block, card)) {
            card.file = relativeFile;
            card.addressBook = addressBook;
            card.position = position;
            cards.push_back(std::move(card));
        } else {
            dlog_print(DLOG_WARN, kTag, "contacts: invalid vCard #%d in %s, skipped", position,
                       absolutePath.c_str());
        }
        ++position;
        block.clear();
    };
    while (std::getline(in, line)) {
        if (isLine(line, "BEGIN:VCARD")) {
            ++depth;
        } else if (depth == 0) {
            if (!trim(line).empty())
                strayText = true;
            continue;
        }
        block += line;
        block += '\n';
        if (isLine(line, "END:VCARD") && --depth == 0)
            finishBlock(true);
    }
    if (in.bad()) {
        dlog_print(DLOG_WARN, kTag, "contacts: error reading %s, skipped", absolutePath.c_str());
        return false;
    }
    if (depth > 0)
        finishBlock(false);
    if (strayText) {
        dlog_print(DLOG_WARN, kTag, "contacts: text outside of any vCard in %s ignored",
                   absolutePath.c_str());
    }
    return true;
}

}  // namespace pelio::platform
