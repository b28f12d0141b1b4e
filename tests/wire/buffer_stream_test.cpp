#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "kp/kp.h"
#include "support/installation.h"

namespace {

using kp::test::Installation;

unsigned char* bytes(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

/// A buffer that borrows a text.
KP_Buffer* bufferOf(std::string& text) {
    auto* const buffer = KP_Buffer::create();
    buffer->setBuffer(bytes(text), text.size());
    buffer->copyBuffer(bytes(text), text.size());
    return buffer;
}

struct FreeBlock {
    void operator()(unsigned char* block) const { std::free(block); }
};
using Block = std::unique_ptr<unsigned char, FreeBlock>;

class StreamTest : public ::testing::Test {
protected:
    void build(std::vector<std::string> texts) {
        stream_.reset();
        texts_ = std::move(texts);
        for (std::string& text : texts_) {
            stream_.add(bufferOf(text));
        }
        stream_.setFirst();
    }

    std::vector<std::string> texts_;  // outlives the stream, whose buffers borrow them
    KP_BufferStream stream_;
};

TEST(BufferTest, BlocksAreTakenFilledAndGivenUp) {
    std::string text = "abcd";
    KP_Buffer buffer;
    EXPECT_EQ(buffer.copyBuffer(bytes(text), 1), -1);  // no block
    ASSERT_EQ(buffer.initBuffer(3), 0);
    EXPECT_EQ(buffer.copyBuffer(bytes(text), 4), -1);
    EXPECT_EQ(buffer.copyBuffer(bytes(text), 3), 0);
    EXPECT_EQ(buffer.getLength(), 3U);
    EXPECT_EQ(buffer.copyBuffer(buffer.getBuffer() + 1, 2), 0);  // its own bytes
    EXPECT_EQ(std::string_view(reinterpret_cast<char*>(buffer.getBuffer()), 2), "bc");
    EXPECT_EQ(buffer.initBuffer(1UL << 32), -1);
    EXPECT_EQ(buffer.getSize(), 3U);

    buffer.resetBuffer();
    EXPECT_EQ(buffer.getBuffer(), nullptr);
    EXPECT_EQ(buffer.getSize(), 0U);
    EXPECT_EQ(buffer.getLength(), 2U);  // told apart from the block
    buffer.setBuffer(bytes(text), 4);
    buffer.resetBuffer();  // a borrowed block is not freed
    EXPECT_EQ(text, "abcd");
}

// The leak check of the address sanitizer is the other half of this test.
TEST(BufferTest, ABlockOfItsOwnEndsWithTheBufferOnlyWhenAskedTo) {
    unsigned char* kept = nullptr;
    {
        KP_Buffer buffer;
        buffer.initBuffer(8);
        kept = buffer.getBuffer();
        buffer.initBuffer(16);
        EXPECT_NE(buffer.getBuffer(), kept);
        buffer.resetBuffer();
    }
    const Block freed(kept);

    KP_Buffer owner;
    owner.setOwner(1);
    owner.initBuffer(8);
    owner.initBuffer(9);
    const KP_Buffer shared(owner);
    owner.setBuffer(owner.getBuffer() + 2, 4);  // a part of the same block
    EXPECT_EQ(owner.getSize(), 4U);
    owner.getBuffer()[3] = 'x';
}

TEST(BufferTest, PrintTellsTheLengthAndTheBytes) {
    std::string text("a\0%s", 4);
    KP_Buffer buffer;
    buffer.setBuffer(bytes(text), 4);
    buffer.copyBuffer(bytes(text), 4);
    std::FILE* const file = std::tmpfile();
    buffer.print(file);
    std::rewind(file);
    char got[64] = {};
    const std::size_t n = std::fread(got, 1, sizeof(got), file);
    std::fclose(file);
    EXPECT_EQ(std::string_view(got, n), std::string_view("length:    4\na\0%s", 17));
}

TEST_F(StreamTest, NothingMovesOnAnEmptyChain) {
    unsigned char out[4] = {7};
    EXPECT_EQ(stream_.setFirst(), -1);
    EXPECT_EQ(stream_.add(nullptr), -1);
    EXPECT_EQ(stream_.isNext(), 0);
    EXPECT_EQ(stream_.getNext(), 0);
    EXPECT_EQ(stream_.incNext(), 0);
    EXPECT_EQ(stream_.bumpToNext(0), 0);
    EXPECT_EQ(stream_.getLastPtr(), nullptr);
    EXPECT_EQ(stream_.lookNextIndex(0), nullptr);
    EXPECT_EQ(stream_.findPattern("abcde"), 0);
    EXPECT_EQ(stream_.copy(0), nullptr);
    EXPECT_EQ(stream_.copy(out, 0), -1);
    EXPECT_EQ(out[0], 7);
    EXPECT_EQ(stream_.run(), "");
    EXPECT_FALSE(stream_.nextRun());
}

TEST_F(StreamTest, StepsAcrossBuffers) {
    build({"ab", "cd"});
    EXPECT_EQ(stream_.total(), 4U);
    EXPECT_EQ(stream_.getNext(), 'a');
    EXPECT_EQ(stream_.incNext(), 1);
    EXPECT_EQ(stream_.isNext(), 1);
    EXPECT_EQ(stream_.ontoNext(), 'c');
    EXPECT_EQ(stream_.incNext(), 1);
    EXPECT_EQ(stream_.isNext(), 0);
    EXPECT_EQ(stream_.incNext(), 0);
    EXPECT_EQ(stream_.ontoNext(), 'd');
    EXPECT_EQ(stream_.getLastPtr(), bytes(texts_[1]) + 2);
    stream_.setFirst();
    stream_.getLastPtr();  // moves the chain alone; looking ahead puts it right
    EXPECT_EQ(stream_.lookNextIndex(1), bytes(texts_[0]) + 1);
    stream_.incNext();
    EXPECT_EQ(stream_.ontoNext(), 'c');

    build({"ab", "", "c"});
    stream_.incNext();
    EXPECT_EQ(stream_.isNext(), 0);   // an empty buffer hides what follows it
    EXPECT_EQ(stream_.incNext(), 1);  // onto the empty buffer
    EXPECT_EQ(stream_.getNext(), 0);  // which has no byte
    EXPECT_EQ(stream_.incNext(), 1);
    EXPECT_EQ(stream_.getNext(), 'c');
}

TEST_F(StreamTest, ACopyWalksTheSameBuffersAndOwnsNone) {
    build({"ab", "cd", "e"});
    stream_.bumpToNext(2);
    unsigned char* const place = stream_.markNext(3);
    stream_.incNext();
    KP_BufferStream copy(stream_);
    EXPECT_EQ(copy.getNext(), 'd');
    EXPECT_EQ(copy.total(), 5U);
    EXPECT_EQ(copy.incNext(), 1);
    EXPECT_EQ(copy.resetNext(place, 3), 0);
    EXPECT_EQ(copy.resetNext(place, 4), -1);
    EXPECT_EQ(copy.ontoNext(), 'd');
    EXPECT_EQ(stream_.getNext(), 'd');
    KP_BufferStream assigned;
    assigned.add(KP_Buffer::create());  // Released by the assignment.
    assigned = copy;
    copy.reset();
    EXPECT_EQ(assigned.ontoNext(), 'e');
    EXPECT_EQ(stream_.ontoNext(), 'e');
}

TEST_F(StreamTest, TextsAreCopiedForReading) {
    unsigned char out[16];
    build({"GE", "T\t\r"});
    EXPECT_EQ(stream_.copy(out, 10), -1);
    EXPECT_EQ(stream_.copy(out, -1), -1);
    EXPECT_EQ(stream_.copy(out, 4), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "GET*");
    EXPECT_EQ(stream_.getNext(), '\r');
    EXPECT_EQ(stream_.copy(out, 0), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "");
}

TEST_F(StreamTest, PatternsAreFiveBytesInOneBuffer) {
    build({"xHTTP/1.", "0 HTT", "P/1.1 HTTP/"});
    EXPECT_EQ(stream_.findPattern("HTTP/2"), 1);
    EXPECT_EQ(stream_.getNextPtr(), bytes(texts_[0]) + 1);
    stream_.incNext();
    EXPECT_EQ(stream_.findPattern("HTTP/2"), 1);
    EXPECT_EQ(stream_.getNextPtr(), bytes(texts_[2]) + 6);
    EXPECT_EQ(stream_.findPattern("abcdefg"), 0);
    stream_.setFirst();
    EXPECT_EQ(stream_.findPattern("x"), 0);  // and four zero bytes
    EXPECT_EQ(stream_.getNextPtr(), bytes(texts_[2]));
    EXPECT_EQ(stream_.findPattern(nullptr), 0);

    build({std::string("ab\0cd", 5), std::string("x\0y", 3)});
    EXPECT_FALSE(stream_.findBytes("cdx"));
    stream_.setFirst();
    EXPECT_TRUE(stream_.findBytes({"\0y", 2}));
    EXPECT_EQ(stream_.getNextPtr(), bytes(texts_[1]) + 1);
}

TEST_F(StreamTest, AnAddressOfNobodyIsReportedAndLeadsNowhereElse) {
    const Installation site;
    site.openLog();
    std::string foreign = "zz";
    build({"ab", "cd"});
    EXPECT_EQ(stream_.find(bytes(texts_[1])), 1);
    EXPECT_EQ(stream_.find(bytes(foreign)), 1);
    EXPECT_NE(site.read("logs/test.log").find("dataOutput: could not find location of token data"),
              std::string::npos);
    EXPECT_EQ(stream_.getNextPtr(), bytes(foreign));
    EXPECT_EQ(stream_.findPattern("zz"), 0);
    EXPECT_EQ(stream_.isNext(), 0);
    EXPECT_EQ(stream_.bumpToNext(1), 0);
    EXPECT_EQ(stream_.incNext(), 0);
    EXPECT_EQ(stream_.find(bytes(texts_[0]) + 1), 1);
    EXPECT_EQ(stream_.ontoNext(), 'c');

    EXPECT_EQ(stream_.resetNext(bytes(texts_[0]), 7), -1);  // never set
    EXPECT_EQ(stream_.markNext(20), nullptr);
    EXPECT_EQ(stream_.markNext(7), bytes(texts_[1]));
    stream_.reset();
    EXPECT_EQ(stream_.resetNext(bytes(texts_[1]), 7), -1);  // its buffer has gone
}

/// What the stream has to do, on one text and a position in it.
struct Model {
    std::vector<std::string>& pieces;
    std::string all;
    std::vector<unsigned char*> places;  // of every byte

    explicit Model(std::vector<std::string>& texts) : pieces(texts) {
        for (std::string& piece : pieces) {
            for (char& c : piece) {
                all += c;
                places.push_back(reinterpret_cast<unsigned char*>(&c));
            }
        }
    }
};

TEST_F(StreamTest, AgreesWithAFlatTextInRandomWalks) {
    std::mt19937 random(20020214);
    const auto upTo = [&](std::size_t most) {
        return static_cast<long>(random() % static_cast<unsigned>(most + 1));
    };
    for (int round = 0; round < 300; ++round) {
        std::vector<std::string> pieces(static_cast<std::size_t>(1 + upTo(40)));
        for (std::string& piece : pieces) {
            for (long n = upTo(3) == 0 ? 0 : upTo(12); n > 0; --n) {
                piece += static_cast<char>('a' + upTo(1));
            }
        }
        pieces.front() += 'a';
        build(std::move(pieces));
        const Model model(texts_);
        const auto size = static_cast<long>(model.places.size());
        long at = 0;
        long marked = 0;
        stream_.markNext(5);
        const unsigned char* const first = stream_.getNextPtr();
        ASSERT_EQ(first, model.places[0]);
        for (int i = 0; i < 200; ++i) {
            const auto place = [&](long index) {
                return model.places[static_cast<std::size_t>(index)];
            };
            switch (upTo(7)) {
                case 0: {  // empty buffers are stood on, too
                    while (at + 1 < size && stream_.incNext() == 1 &&
                           stream_.getNextPtr() != place(at + 1)) {
                    }
                    at += at + 1 < size ? 1 : 0;
                    break;
                }
                case 1: {
                    const long by = upTo(static_cast<std::size_t>(size)) - at;
                    ASSERT_EQ(stream_.bumpToNext(by), at + by < size ? 1 : 0);
                    at += at + by < size ? by : 0;
                    break;
                }
                case 2:
                    ASSERT_EQ(stream_.bumpToNext(-at - 1 - upTo(5)), 0);
                    ASSERT_EQ(stream_.bumpToNext(size - at + upTo(5)), 0);
                    break;
                case 3: {
                    const long by = upTo(static_cast<std::size_t>(size) + 3) - at - 1;
                    const bool exists = at + by >= 0 && at + by < size;
                    ASSERT_EQ(stream_.lookNextIndex(static_cast<int>(by)),
                              exists ? place(at + by) : nullptr);
                    break;
                }
                case 4:
                    at = upTo(static_cast<std::size_t>(size - 1));
                    stream_.find(place(at));
                    break;
                case 5:
                    marked = at;
                    ASSERT_EQ(stream_.markNext(5), place(at));
                    break;
                case 6:
                    at = marked;
                    ASSERT_EQ(stream_.resetNext(place(at), 5), 0);
                    break;
                default: {
                    const long n = upTo(20);
                    unsigned char out[21];
                    ASSERT_EQ(stream_.copy(out, static_cast<int>(n)), at + n < size ? 0 : -1);
                    if (at + n < size) {
                        ASSERT_EQ(reinterpret_cast<char*>(out),
                                  model.all.substr(static_cast<std::size_t>(at),
                                                   static_cast<std::size_t>(n)));
                        at += n;
                    }
                }
            }
            ASSERT_EQ(stream_.getNextPtr(), place(at)) << "round " << round << " step " << i;
        }
        const Block all(stream_.copy(0));
        EXPECT_EQ(std::string_view(reinterpret_cast<char*>(all.get()), model.all.size()),
                  model.all);
        const Block head(stream_.copy(1));
        EXPECT_EQ(*head, static_cast<unsigned char>(model.all[0]));
        std::string runs;
        for (bool more = stream_.firstRun(); more; more = stream_.nextRun()) {
            runs += stream_.run();
        }
        EXPECT_EQ(runs, model.all);
    }
}

}  // namespace
