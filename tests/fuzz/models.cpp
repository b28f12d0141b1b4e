// Random programs of strings, lists and streams, each step compared with the standard library.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "kp/kp.h"
#include "support/support.h"

namespace {

using kp::fuzz::require;
using kp::fuzz::Script;

// Texts without a zero byte, so that every operation means all of it.
std::string textFrom(Script& script) {
    std::string text(script.text());
    std::replace(text.begin(), text.end(), '\0', '0');
    return text;
}

int positionFrom(Script& script) {
    return static_cast<int>(script.number()) - 8;
}

std::string upTo(const std::string& text, int count) {
    return count <= 0 ? text : text.substr(0, static_cast<std::size_t>(count));
}

// Removes the first or all, also those that a removal brings together.
void extract(std::string& text, const std::string& part, bool all) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        result += text[i];
        const bool isThere = !part.empty() && result.size() >= part.size() &&
                             result.compare(result.size() - part.size(), part.size(), part) == 0;
        if (!isThere)
            continue;
        result.resize(result.size() - part.size());
        if (!all) {
            result += text.substr(i + 1);
            break;
        }
    }
    text = result;
}

void playStrings(Script& script) {
    KP_String strings[3];
    std::string models[3];
    constexpr std::size_t kLongest = 4096;
    for (int step = 0; !script.isOver() && step < 200; ++step) {
        const unsigned what = script.number();
        KP_String& string = strings[what / 16 % 3];
        std::string& model = models[what / 16 % 3];
        if (model.size() > kLongest)
            string = "", model.clear();
        const KP_String& other = strings[what / 64 % 3];
        const std::string otherModel = models[what / 64 % 3];
        switch (what % 16) {
            case 0: {
                const std::string text = textFrom(script);
                string = text.c_str();
                model = text;
                break;
            }
            case 1:
                string = other;
                model = otherModel;
                break;
            case 2:
                string &= other;
                model += otherModel;
                break;
            case 3: {
                const std::string text = textFrom(script);
                string &= text.c_str();
                model += text;
                break;
            }
            case 4: {
                const auto c = static_cast<char>(script.number() | 1);
                string << c;
                model += c;
                break;
            }
            case 5: {
                const int number = positionFrom(script) * 8388617;
                string << number;
                model += std::to_string(number);
                break;
            }
            case 6: {
                const int length = positionFrom(script);
                string.truncateString(length);
                model.resize(std::min(model.size(), static_cast<std::size_t>(std::max(length, 0))));
                break;
            }
            case 7: {
                const int start = std::max(positionFrom(script), 0);
                const int count = positionFrom(script);
                const auto from = std::min(static_cast<std::size_t>(start), otherModel.size());
                string = other.getSubString(start, count);
                model = upTo(otherModel.substr(from), count);
                break;
            }
            case 8: {
                const int position = std::max(positionFrom(script), 0);
                const int count = positionFrom(script);
                string.setSubString(other, position, count);
                if (static_cast<std::size_t>(position) <= model.size())
                    model.insert(static_cast<std::size_t>(position), upTo(otherModel, count));
                break;
            }
            case 9: {
                const std::string part = textFrom(script);
                const bool all = what >= 128;
                string.extractSubString(part.c_str(), all ? 2 : 0);
                extract(model, part, all);
                break;
            }
            case 10: {
                const std::string part = textFrom(script);
                const std::size_t found = model.find(part);
                const int expected =
                    part.empty() || found == std::string::npos ? -1 : static_cast<int>(found);
                require(string.findSubString(part.c_str(), 0) == expected);
                break;
            }
            case 11:
                string.toUpper();
                std::transform(model.begin(), model.end(), model.begin(),
                               [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
                break;
            case 12:
                require((string == other) == (model == otherModel));
                require(string.wildcardSearch("*") == !model.empty());
                break;
            case 13: {
                string.hexify(otherModel.data(), otherModel.size());
                model.clear();
                for (const char c : otherModel) {
                    constexpr char kHex[] = "0123456789ABCDEF";
                    model += kHex[static_cast<unsigned char>(c) >> 4];
                    model += kHex[c & 15];
                }
                break;
            }
            case 14: {
                KP_String copy(string);
                string = std::move(copy);
                break;
            }
            default:
                string = string & other;
                model += otherModel;
        }
        require(string.view() == model && string.getLength() == model.size());
        require(std::strlen(static_cast<const char*>(string)) == model.size());
    }
}

// The list's cursor is an iterator of the model; its end is "nowhere".
void playList(Script& script) {
    std::vector<std::unique_ptr<KP_String>> elements;  // those of the list outlive it
    KP_List<KP_String> list;
    std::list<KP_String*> model;
    auto cursor = model.end();
    list.setRecycle(static_cast<int>(script.number() % 2));
    const auto element = [&] {
        elements.push_back(std::make_unique<KP_String>(std::string_view("x")));
        return elements.back().get();
    };
    for (int step = 0; !script.isOver() && step < 300; ++step) {
        switch (script.number() % 10) {
            case 0: {
                KP_String* const added = element();
                require(list.append(added) == 0);
                model.push_back(added);
                if (model.size() == 1)
                    cursor = model.begin();
                break;
            }
            case 1: {
                KP_String* const added = element();
                require(list.insert(added) == 0);
                const bool wasEmpty = model.empty();
                const auto place = model.insert(cursor, added);
                if (wasEmpty)
                    cursor = place;
                break;
            }
            case 2:
                list.removeCurrent();
                if (cursor != model.end())
                    cursor = model.erase(cursor);
                break;
            case 3:
                cursor = model.begin();
                require(list.first() == (model.empty() ? nullptr : *cursor));
                break;
            case 4:
                cursor = model.empty() ? model.end() : std::prev(model.end());
                require(list.last() == (model.empty() ? nullptr : *cursor));
                break;
            case 5: {
                const bool isThere = cursor != model.end() && std::next(cursor) != model.end();
                require(list.hasNext() == (isThere ? 1 : 0));
                KP_String* const found = list.next();
                require(found == (isThere ? *++cursor : nullptr));
                break;
            }
            case 6: {
                const bool isThere = cursor != model.end() && cursor != model.begin();
                require(list.hasPrevious() == (isThere ? 1 : 0));
                KP_String* const found = list.previous();
                require(found == (isThere ? *--cursor : nullptr));
                break;
            }
            case 7: {
                const auto position = script.number() % 16;
                KP_String* const found = list.getAt(static_cast<int>(position));
                if (model.empty()) {
                    require(found == nullptr);
                } else if (position >= 1 && position <= model.size()) {
                    cursor = std::next(model.begin(), static_cast<std::ptrdiff_t>(position) - 1);
                    require(found == *cursor);
                } else {
                    cursor = std::prev(model.end());
                    require(found == *cursor);
                }
                break;
            }
            case 8:
                if (!elements.empty()) {
                    KP_String* const wanted = elements[script.number() % elements.size()].get();
                    const auto place = std::find(model.begin(), model.end(), wanted);
                    if (place != model.end()) {
                        cursor = place;
                        require(list.find(wanted) == wanted);
                    }
                }
                break;
            default:
                if (script.number() % 8 == 0) {
                    list.clear();
                    model.clear();
                    cursor = model.end();
                }
        }
        require(static_cast<std::size_t>(list.getCount()) == model.size());
        require(list.getCurrentElement() == (cursor == model.end() ? nullptr : *cursor));
    }
    auto each = model.begin();
    for (KP_String* one = list.first(); one != nullptr; one = list.next())
        require(each != model.end() && one == *each++);
    require(each == model.end());
}

// The stream's cursor is a place in all its bytes; no buffer is empty.
void playStream(Script& script) {
    KP_BufferStream stream;
    std::string model;
    const unsigned buffers = script.number() % 5 + 1;
    for (unsigned i = 0; i < buffers; ++i) {
        std::string bytes(script.text());
        bytes += static_cast<char>(i);
        auto* const buffer = new KP_Buffer;
        buffer->setOwner(1);
        require(buffer->initBuffer(bytes.size()) == 0);
        const auto* const first = reinterpret_cast<const unsigned char*>(bytes.data());
        require(buffer->copyBuffer(first, bytes.size()) == 0);
        require(stream.add(buffer) == 0);
        model += bytes;
    }
    require(stream.total() == model.size() && stream.setFirst() == 0);
    std::size_t place = 0;
    std::size_t marked[20] = {};
    unsigned char* marks[20] = {};
    for (int step = 0; !script.isOver() && step < 300; ++step) {
        switch (script.number() % 9) {
            case 0:
                require(stream.setFirst() == 0);
                place = 0;
                break;
            case 1:
                require(stream.incNext() == (place + 1 < model.size() ? 1 : 0));
                place = std::min(place + 1, model.size() - 1);
                break;
            case 2:
                require(stream.step() == (place + 1 < model.size()));
                place = std::min(place + 1, model.size() - 1);
                break;
            case 3: {
                const long distance = positionFrom(script) - 100;
                const long target = static_cast<long>(place) + distance;
                const bool isThere = target >= 0 && target < static_cast<long>(model.size());
                require(stream.bumpToNext(distance) == (isThere ? 1 : 0));
                if (isThere)
                    place = static_cast<std::size_t>(target);
                marks[0] = nullptr;
                break;
            }
            case 4: {
                const unsigned mark = script.number() % 19 + 1;
                marks[mark] = stream.markNext(static_cast<int>(mark));
                marked[mark] = place;
                require(marks[mark] != nullptr);
                break;
            }
            case 5: {
                const unsigned mark = script.number() % 19 + 1;
                const bool isSet = marks[mark] != nullptr;
                if (isSet) {
                    require(stream.resetNext(marks[mark], static_cast<int>(mark)) == 0);
                    place = marked[mark];
                } else {
                    require(stream.resetNext(nullptr, static_cast<int>(mark)) == -1);
                }
                break;
            }
            case 6: {
                const int distance = positionFrom(script) - 100;
                const long target = static_cast<long>(place) + distance;
                const bool isThere = target >= 0 && target < static_cast<long>(model.size());
                const unsigned char* const found = stream.lookNextIndex(distance);
                require((found != nullptr) == isThere);
                if (isThere)
                    require(*found ==
                            static_cast<unsigned char>(model[static_cast<std::size_t>(target)]));
                break;
            }
            case 7: {
                std::string walked;
                KP_BufferStream copy(stream);
                bool more = true;
                for (; more; more = copy.nextRun())
                    walked += copy.run();
                require(walked == model.substr(place));
                break;
            }
            default:
                if (unsigned char* const all = stream.copy(0UL)) {
                    require(std::memcmp(all, model.data(), model.size()) == 0);
                    std::free(all);
                    require(stream.setFirst() == 0);  // The copy has moved its buffer.
                    place = 0;
                }
        }
        require(stream.getNext() == static_cast<unsigned char>(model[place]));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Script script(data, size);
    switch (script.number() % 3) {
        case 0:
            playStrings(script);
            break;
        case 1:
            playList(script);
            break;
        default:
            playStream(script);
    }
    return 0;
}
