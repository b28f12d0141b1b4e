#include "kp/wire/buffer_stream.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "core/byte_search.h"
#include "kp/core/log.h"

namespace {

// The used bytes of a buffer; a length beyond the block counts up to its end.
struct Bytes {
    unsigned char* start = nullptr;
    std::size_t length = 0;

    unsigned char* end() const { return start + length; }
    bool holds(const unsigned char* place) const {
        const auto offset =
            reinterpret_cast<std::uintptr_t>(place) - reinterpret_cast<std::uintptr_t>(start);
        return offset < length;
    }
};

KP_Buffer* asBuffer(KP_Object* element) {
    return kp::viewAs<KP_Buffer>(element);
}

// Of an element that is no buffer: none.
Bytes bytesOf(KP_Object* element) {
    KP_Buffer* const buffer = asBuffer(element);
    unsigned char* const start = buffer != nullptr ? buffer->getBuffer() : nullptr;
    if (start == nullptr) {
        return {};
    }
    return {start, std::min(buffer->getLength(), buffer->getSize())};
}

}  // namespace

KP_BufferStream::KP_BufferStream() {
    chain_.setOwner(1);
}

KP_BufferStream::KP_BufferStream(const KP_BufferStream& other)
    : KP_Object(other), KP_Stream(other), chain_(other.chain_) {
    copyPlaces(other);
}

KP_BufferStream& KP_BufferStream::operator=(const KP_BufferStream& other) {
    if (this != &other) {
        chain_ = other.chain_;
        copyPlaces(other);
    }
    return *this;
}

// Takes over what stands beside the chain, which is a copy of the other's already; its cursor is
// where the other's is.
void KP_BufferStream::copyPlaces(const KP_BufferStream& other) {
    m_iTotal = other.m_iTotal;
    start_ = other.start_;
    next_ = other.next_;
    end_ = other.end_;
    std::fill(std::begin(marks_), std::end(marks_), nullptr);
    Link* const current = chain_.getCurrentLink();
    auto& others = const_cast<KP_List<KP_Object>&>(other.chain_);
    Link* const othersCurrent = others.getCurrentLink();
    chain_.first();
    others.first();
    Link* link = chain_.getCurrentLink();
    for (Link* from = others.getCurrentLink(); from != nullptr; from = from->getNext()) {
        for (int mark = 0; mark < kMarks; ++mark) {
            if (other.marks_[mark] == from) {
                marks_[mark] = link;
            }
        }
        link = link->getNext();
    }
    others.setCurrentLink(othersCurrent);
    chain_.setCurrentLink(current);
}

KP_BufferStream::~KP_BufferStream() = default;

KP_BufferStream::Position KP_BufferStream::position() {
    return {chain_.getCurrentLink(), start_, next_, end_};
}

void KP_BufferStream::setPosition(const Position& position) {
    chain_.setCurrentLink(position.link);
    start_ = position.start;
    next_ = position.next;
    end_ = position.end;
}

// Puts the cursor on the first byte of an element that has just become the current one.
bool KP_BufferStream::enter(KP_Object* element) {
    if (element == nullptr) {
        return false;
    }
    const Bytes bytes = bytesOf(element);
    start_ = next_ = bytes.start;
    end_ = bytes.end();
    return true;
}

// The chain's own next() and previous() would take its lock for every buffer, which guards nothing
// here.
bool KP_BufferStream::stepTo(Link* link) {
    if (link == nullptr) {
        return false;
    }
    chain_.setCurrentLink(link);
    return enter(link->getElement());
}

bool KP_BufferStream::stepBuffer() {
    Link* const link = chain_.getCurrentLink();
    return link != nullptr && stepTo(link->getNext());
}

bool KP_BufferStream::stepBufferBack() {
    Link* const link = chain_.getCurrentLink();
    return link != nullptr && stepTo(link->getPrevious());
}

// False after getLastPtr() and the copy of a block, which move the chain alone, when the cursor is
// nowhere, and when it is on a byte of nobody.
bool KP_BufferStream::isInCurrent() {
    const Bytes bytes = bytesOf(chain_.getCurrent());
    return bytes.start == start_ && end_ <= bytes.end();
}

// Puts the cursor where it was; the chain follows if it was elsewhere, as after getLastPtr().
void KP_BufferStream::restore(const Position& position) {
    setPosition(position);
    if (next_ == nullptr || isInCurrent()) {
        return;
    }
    chain_.first();
    for (Link* link = chain_.getCurrentLink(); link != nullptr; link = link->getNext()) {
        if (bytesOf(link->getElement()).holds(next_)) {
            chain_.setCurrentLink(link);
            return;
        }
    }
    setPosition(position);
}

// Nothing has put the cursor on a buffer yet.
bool KP_BufferStream::isNowhere() {
    return next_ == nullptr && bytesOf(chain_.getCurrent()).start != nullptr;
}

int KP_BufferStream::add(KP_Buffer* buffer) {
    if (buffer == nullptr) {
        return -1;
    }
    chain_.append(buffer);
    m_iTotal += static_cast<std::uint32_t>(bytesOf(buffer).length);
    return 0;
}

unsigned long KP_BufferStream::total() {
    return m_iTotal;
}

int KP_BufferStream::setFirst() {
    const Position before = position();
    KP_Object* const element = chain_.first();
    KP_Buffer* const buffer = asBuffer(element);
    if (buffer == nullptr || buffer->getBuffer() == nullptr) {
        setPosition(before);
        return -1;
    }
    enter(element);
    return 0;
}

int KP_BufferStream::isNext() {
    if (next_ == nullptr) {
        return 0;
    }
    if (end_ - next_ > 1) {
        return 1;
    }
    Link* const link = chain_.getCurrentLink();
    return link != nullptr && bytesOf(link->getNextElement()).length != 0 ? 1 : 0;
}

unsigned char KP_BufferStream::getNext() {
    return next_ != end_ ? *next_ : 0;
}

unsigned char* KP_BufferStream::getNextPtr() {
    return next_;
}

unsigned char* KP_BufferStream::getLastPtr() {
    return bytesOf(chain_.last()).end();
}

int KP_BufferStream::incNext() {
    return step() ? 1 : 0;
}

unsigned char KP_BufferStream::ontoNext() {
    step();
    return KP_BufferStream::getNext();
}

int KP_BufferStream::bumpToNext(long count) {
    if (chain_.getCurrentLink() == nullptr) {
        return 0;
    }
    markNext(0);
    const Position before = position();
    if (isNowhere()) {
        return 0;
    }
    bool isInside = true;
    if (count >= 0) {
        auto left = static_cast<unsigned long>(count);
        while (isInside && left >= static_cast<unsigned long>(end_ - next_)) {
            left -= static_cast<unsigned long>(end_ - next_);
            isInside = stepBuffer();
        }
        if (isInside) {
            next_ += left;
            return 1;
        }
    } else {
        auto left = 0 - static_cast<unsigned long>(count);
        while (isInside && left > static_cast<unsigned long>(next_ - start_)) {
            left -= static_cast<unsigned long>(next_ - start_) + 1;
            do {
                isInside = stepBufferBack();
            } while (isInside && end_ == start_);
            if (isInside) {
                next_ = end_ - 1;
            }
        }
        if (isInside) {
            next_ -= left;
            return 1;
        }
    }
    restore(before);
    return 0;
}

unsigned char* KP_BufferStream::markNext(int mark) {
    if (mark < 0 || mark >= kMarks) {
        return nullptr;
    }
    marks_[mark] = chain_.getCurrentLink();
    return next_;
}

int KP_BufferStream::resetNext(unsigned char* place, int mark) {
    if (mark < 0 || mark >= kMarks || marks_[mark] == nullptr) {
        return -1;
    }
    chain_.setCurrentLink(marks_[mark]);
    enter(chain_.getCurrent());
    const bool isBehind = start_ != nullptr && place == end_;
    if (isBehind || bytesOf(chain_.getCurrent()).holds(place)) {
        next_ = place;
    } else if (place != start_) {
        find(place);
    }
    return 0;
}

unsigned char* KP_BufferStream::aheadNext(short) {
    return KP_BufferStream::getNextPtr();
}

void KP_BufferStream::relNext() {}

unsigned char* KP_BufferStream::lookNextIndex(int distance) {
    const Position before = position();
    unsigned char* const place = bumpToNext(distance) != 0 ? next_ : nullptr;
    restore(before);
    return place;
}

int KP_BufferStream::find(unsigned char* place) {
    markNext(0);
    Link* const from = chain_.getCurrentLink();
    const auto isIn = [&](KP_Object* element) {
        if (!bytesOf(element).holds(place)) {
            return false;
        }
        enter(element);
        next_ = place;
        return true;
    };
    for (KP_Object* element = chain_.getCurrent(); element != nullptr;
         element = chain_.previous()) {
        if (isIn(element)) {
            return 1;
        }
    }
    chain_.setCurrentLink(from);
    while (KP_Object* const element = chain_.next()) {
        if (isIn(element)) {
            return 1;
        }
    }
    KP_Log::flog(nullptr, "dataOutput: could not find location of token data");
    chain_.setCurrentLink(from);
    start_ = next_ = place;
    end_ = place != nullptr ? place + 1 : nullptr;
    return 1;
}

int KP_BufferStream::findPattern(char* pattern) {
    constexpr std::size_t kLength = 5;
    if (pattern == nullptr) {
        return 0;
    }
    char wanted[kLength] = {};
    for (std::size_t i = 0; i < kLength && pattern[i] != '\0'; ++i) {
        wanted[i] = pattern[i];
    }
    return findBytes({wanted, kLength}) ? 1 : 0;
}

bool KP_BufferStream::findBytes(std::string_view pattern) {
    if (!isInCurrent()) {
        return false;
    }
    do {
        const std::string_view here = run();
        const char* const found =
            kp::detail::findBytes(here.data(), here.size(), pattern.data(), pattern.size());
        if (found != nullptr) {
            bumpToNext(found - here.data());
            return true;
        }
    } while (stepBuffer());
    return false;
}

unsigned char* KP_BufferStream::copy(unsigned long count) {
    const std::size_t wanted = count != 0 ? count : m_iTotal;
    if (chain_.getCount() == 0 || wanted > UINT32_MAX) {
        return nullptr;
    }
    auto* const block = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(wanted, 1)));
    if (block == nullptr) {
        return nullptr;
    }
    std::size_t done = 0;
    chain_.first();
    for (Link* link = chain_.getCurrentLink();; link = link->getNext()) {
        const Bytes bytes = bytesOf(link->getElement());
        const std::size_t part = std::min(bytes.length, wanted - done);
        if (part != 0) {
            std::memcpy(block + done, bytes.start, part);
        }
        done += part;
        if (done == wanted || link->getNext() == nullptr) {
            chain_.setCurrentLink(link);
            return block;
        }
    }
}

int KP_BufferStream::copy(unsigned char* out, int count) {
    if (count < 0 || lookNextIndex(count) == nullptr) {
        return -1;
    }
    // One byte more than is copied stands ahead, and the cursor ends there.
    for (int left = count; (next_ != end_ || nextRun()) && left != 0; --left) {
        const unsigned char c = *next_;
        if (c == '\n' || c == '\r') {
            break;
        }
        *out++ = std::isprint(c) != 0 ? c : '*';
        if (end_ - next_ > 1) {
            ++next_;
        } else if (!stepBuffer()) {
            break;
        }
    }
    *out = 0;
    return 0;
}

bool KP_BufferStream::firstRun() {
    const Position before = position();
    enter(chain_.first());
    if (next_ != end_ || nextRun()) {
        return true;
    }
    setPosition(before);
    return false;
}

bool KP_BufferStream::nextRun() {
    const Position before = position();
    if (isNowhere()) {
        return false;
    }
    while (stepBuffer()) {
        if (next_ != end_) {
            return true;
        }
    }
    setPosition(before);
    return false;
}

KP_Buffer* KP_BufferStream::getCurrentBuffer() {
    return isInCurrent() ? asBuffer(chain_.getCurrent()) : nullptr;
}

char* KP_BufferStream::getClassName() {
    return kp::className("KP_BufferStream");
}

int KP_BufferStream::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_BufferStream, KP_Stream>(this, id, out);
}

int KP_BufferStream::reset() {
    chain_.clear();
    m_iTotal = 0;
    start_ = next_ = end_ = nullptr;
    std::fill(std::begin(marks_), std::end(marks_), nullptr);
    return 0;
}

int KP_BufferStream::print(std::FILE* file) {
    KP_Log::flog(file, "m_iTotal: %d\n", static_cast<int>(m_iTotal));
    return 0;
}

KP_BufferStream* KP_BufferStream::create() {
    return kp::createAndInit<KP_BufferStream>();
}
