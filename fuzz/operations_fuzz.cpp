// Any sequence of operations on a file of sections does what it does to a list of lists, and the
// file that it gives reads back so.

#include <cstdlib>
#include <vector>

#include "store/document.h"

using Configuration::Document;
using Configuration::Entry;
using Scope = Document::Scope;

namespace {

struct ModelSection {
    std::string name;
    std::vector<Entry> entries;
};

struct Model {
    std::vector<Entry> top;
    std::vector<ModelSection> sections;
};

/// The input as a sequence of small numbers.
class Choices {
public:
    Choices(const unsigned char* data, std::size_t size) : data_(data), size_(size) {}
    bool Empty() const { return size_ == 0; }
    unsigned Take() {
        if (Empty())
            return 0;
        --size_;
        return *data_++;
    }
    /// Few names, so that they meet again; some that need care.
    std::string Name() {
        static const char* const odd[] = {"section", "a b", "line_0", "{", "}", "x\r"};
        const unsigned choice = Take();
        return choice < std::size(odd) ? odd[choice] : "k" + std::to_string(choice % 48);
    }
    std::string Value() {
        static const char* const odd[] = {"", " ", "=", "#", "}", "a\rb", "end\r", "section x"};
        const unsigned choice = Take();
        return choice < std::size(odd) ? odd[choice] : std::string(choice % 40, 'v');
    }

private:
    const unsigned char* data_;
    std::size_t size_;
};

void Check(bool holds) {
    if (!holds)
        std::abort();
}

std::vector<Entry>::iterator Find(std::vector<Entry>& entries, const std::string& key) {
    auto entry = entries.begin();
    while (entry != entries.end() && entry->key != key)
        ++entry;
    return entry;
}

void CheckEntries(const std::vector<Entry>& expected, const std::vector<Entry>& actual) {
    Check(expected.size() == actual.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        Check(expected[i].key == actual[i].key && expected[i].value == actual[i].value);
}

void CheckSame(const Model& model, Document& document) {
    CheckEntries(model.top, document.Entries(Scope::TopLevel));
    document.Restart();
    for (const ModelSection& section : model.sections) {
        Check(document.GotoNextSection() && document.SectionName() == section.name);
        CheckEntries(section.entries, document.Entries(Scope::Section));
    }
    Check(!document.GotoNextSection());
}

/// Both sides of the test: what is done to the document is done to the model.
class Pair {
public:
    void Step(Choices& choices) {
        const Scope scope = choices.Take() % 2 == 0 ? Scope::Section : Scope::TopLevel;
        std::vector<Entry>* entries = scope == Scope::TopLevel ? &model_.top : Current();
        const std::string key = choices.Name();
        switch (choices.Take() % 9) {
            case 0:
                Goto(key);
                break;
            case 1:
                if (document_.AddSection(key)) {
                    // A name ends where the line's blanks begin.
                    model_.sections.push_back({std::string(document_.SectionName()), {}});
                    current_ = static_cast<int>(model_.sections.size()) - 1;
                }
                break;
            case 2:
                Check(document_.DeleteSection() == (current_ >= 0));
                if (current_ >= 0)
                    model_.sections.erase(model_.sections.begin() + current_);
                current_ = -1;
                break;
            case 3:
            case 4:
                Set(scope, entries, key, choices.Value());
                break;
            case 5:
                if (const std::string value = choices.Value();
                    document_.Add(scope, Trimmed(key), value))
                    entries->push_back({Trimmed(key), value});
                break;
            case 6:
                Delete(scope, entries, key);
                break;
            case 7:
                DeleteWhileWalking(scope, entries, choices.Take());
                break;
            default:
                CheckFound(scope, entries, key);
        }
    }
    void CheckAll() {
        CheckSame(model_, document_);
        Document again(document_.Text(), Document::Layout::Sectioned, "again");
        CheckSame(model_, again);
        Check(again.Text() == document_.Text());
    }

private:
    static std::string Trimmed(const std::string& key) {
        return key.substr(0, key.find_last_not_of(" \t\r") + 1);
    }
    std::vector<Entry>* Current() {
        return current_ < 0 ? nullptr
                            : &model_.sections[static_cast<std::size_t>(current_)].entries;
    }
    void Goto(const std::string& name) {
        current_ = -1;
        for (std::size_t i = model_.sections.size(); i-- > 0;)
            if (model_.sections[i].name == name)
                current_ = static_cast<int>(i);
        Check(document_.GotoSection(name) == (current_ >= 0));
    }
    void Set(Scope scope, std::vector<Entry>* entries, const std::string& key,
             const std::string& value) {
        if (!document_.Set(scope, key, value))
            return;
        Check(entries != nullptr);
        const auto entry = Find(*entries, Trimmed(key));
        if (entry == entries->end())
            entries->push_back({Trimmed(key), value});
        else
            entry->value = value;
    }
    void Delete(Scope scope, std::vector<Entry>* entries, const std::string& key) {
        const bool deleted = document_.Delete(scope, key);
        if (entries == nullptr) {
            Check(!deleted);
            return;
        }
        const auto entry = Find(*entries, Trimmed(key));
        Check(deleted == (entry != entries->end()));
        if (deleted)
            entries->erase(entry);
    }
    void CheckFound(Scope scope, std::vector<Entry>* entries, const std::string& key) {
        std::string_view value;
        const bool found = document_.Find(scope, key, value);
        if (entries == nullptr) {
            Check(!found);
            return;
        }
        const auto entry = Find(*entries, Trimmed(key));
        Check(found == (entry != entries->end()));
        Check(!found || entry->value == value);
    }
    /// Walks all entries, deletes some and sets others; the pattern's bits say which.
    void DeleteWhileWalking(Scope scope, std::vector<Entry>* entries, unsigned pattern) {
        std::size_t at = 0;
        unsigned step = 0;
        document_.RestartEntries(scope);
        while (document_.GotoNextEntry(scope)) {
            Check(entries != nullptr && at < entries->size());
            const bool chosen = (pattern >> (step++ % 8) & 1U) != 0;
            if (chosen && step % 2 == 0) {
                Check(document_.DeleteCurrentEntry(scope));
                entries->erase(entries->begin() + static_cast<std::ptrdiff_t>(at));
                continue;
            }
            if (chosen && document_.SetCurrentEntry(scope, "walked"))
                (*entries)[at].value = "walked";
            ++at;
        }
        Check(entries == nullptr || at == entries->size());
    }

    Document document_{
        "# begin\nk1=top\nsection k2\n{\nk3=a\n# inside\n}\nk4=between\nsection\n{\n}",
        Document::Layout::Sectioned, "model"};
    Model model_{{{"k1", "top"}, {"k4", "between"}}, {{"k2", {{"k3", "a"}}}, {"", {}}}};
    int current_ = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    Choices choices(data, size);
    Pair pair;
    while (!choices.Empty())
        pair.Step(choices);
    pair.CheckAll();
    return 0;
}
