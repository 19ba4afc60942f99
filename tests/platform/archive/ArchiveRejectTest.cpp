// Malformed keyed archives: each decodes to nil with a coder error, never a
// crash. One test per kind of damage a reader must refuse.
#include <gtest/gtest.h>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using Ref = BinaryPlist::Ref;

class ArchiveRejects : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }

  // Decodes both unrestricted and restricted; both must fail with a coder
  // error whose description contains `fragment`.
  static void expectRefused(std::span<const uint8_t> bytes, const std::string& fragment) {
    ErrorPtr error;
    EXPECT_EQ(KeyedUnarchiver::unarchiveObjectWithData(bytes, &error), nullptr);
    ASSERT_TRUE(error) << "no error for an archive that should be refused (" << fragment << ")";
    EXPECT_EQ(error->domain(), kCocoaErrorDomain);
    EXPECT_EQ(error->code(), kCoderReadCorruptError);
    EXPECT_NE(describe(error).find(fragment), std::string::npos) << describe(error);

    ClassSet all{&Object::classInfo()};
    ErrorPtr restricted;
    EXPECT_EQ(KeyedUnarchiver::unarchivedObjectOfClasses(all, bytes, &restricted), nullptr);
    EXPECT_TRUE(restricted);
  }

  // An NSArray at UID 1 whose NS.objects value is `elements`.
  static std::vector<uint8_t> arrayArchive(HandArchive& archive, Ref elements) {
    uint32_t root = archive.add(0);
    uint32_t cls = archive.addClass("NSArray", {"NSArray", "NSObject"});
    archive.set(root, archive.object({{"NS.objects", elements}, {"$class", archive.uid(cls)}}));
    return archive.bytes(root);
  }

  // A size record at UID 1 with the given keys besides $class.
  static std::vector<uint8_t> recordArchive(
      HandArchive& archive, std::initializer_list<std::pair<std::string_view, Ref>> keys) {
    uint32_t root = archive.add(0);
    uint32_t cls = archive.addClass("QXFileSizeItem", {"QXFileSizeItem", "NSObject"});
    std::vector<std::pair<std::string_view, Ref>> all(keys);
    all.emplace_back("$class", archive.uid(cls));
    std::vector<Ref> k, v;
    for (auto& [key, value] : all) {
      k.push_back(archive.str(key));
      v.push_back(value);
    }
    archive.set(root, archive.plist().addDictionary(k, v));
    return archive.bytes(root);
  }
};

TEST_F(ArchiveRejects, UidBeyondObjects) {
  HandArchive a;
  a.add(a.str("x"));
  expectRefused(a.bytes(5), "beyond");
  HandArchive b;
  expectRefused(arrayArchive(b, b.uids({1000})), "beyond");
}

TEST_F(ArchiveRejects, NonUidWhereUidExpected) {
  HandArchive a;
  expectRefused(arrayArchive(a, a.plist().addArray(std::vector<Ref>{a.integer(1)})), "not a UID");
  HandArchive b;
  // An NSURL whose NS.relative is a string inline instead of a UID.
  uint32_t root = b.add(0);
  uint32_t cls = b.addClass("NSURL", {"NSURL", "NSObject"});
  b.set(root, b.object({{"NS.base", b.uid(0)},
                        {"NS.relative", b.str("file:///tmp")},
                        {"$class", b.uid(cls)}}));
  expectRefused(b.bytes(root), "NS.relative");
  // A root that is not a UID.
  HandArchive c;
  c.add(c.str("x"));
  Ref top =
      c.object({{"$archiver", c.str("NSKeyedArchiver")},
                {"$version", c.integer(100000)},
                {"$top", c.object({{"root", c.integer(1)}})},
                {"$objects", c.plist().addArray(std::vector<Ref>{c.str("$null"), c.str("x")})}});
  expectRefused(c.plist().write(top), "root");
}

TEST_F(ArchiveRejects, ClassMissingNotUidOrNotAClassDictionary) {
  HandArchive missing;
  missing.add(missing.object({{"NS.objects", missing.uids({})}}));
  expectRefused(missing.bytes(), "no $class");

  HandArchive notUid;
  notUid.add(notUid.object({{"NS.objects", notUid.uids({})}, {"$class", notUid.str("NSArray")}}));
  expectRefused(notUid.bytes(), "$class");

  HandArchive notDict;
  uint32_t name = notDict.add(notDict.str("NSArray"));
  notDict.add(notDict.object({{"NS.objects", notDict.uids({})}, {"$class", notDict.uid(name)}}));
  expectRefused(notDict.bytes(2), "class dictionary");

  HandArchive noName;
  uint32_t cls = noName.add(noName.object({{"$classname", noName.integer(3)}}));
  noName.add(noName.object({{"NS.objects", noName.uids({})}, {"$class", noName.uid(cls)}}));
  expectRefused(noName.bytes(2), "$classname");

  HandArchive beyond;
  beyond.add(beyond.object({{"NS.objects", beyond.uids({})}, {"$class", beyond.uid(99)}}));
  expectRefused(beyond.bytes(), "$class");
}

TEST_F(ArchiveRejects, UnknownClassName) {
  HandArchive a;
  uint32_t cls = a.addClass("NSSomethingElse", {"NSSomethingElse", "NSArray", "NSObject"});
  a.add(a.object({{"NS.objects", a.uids({})}, {"$class", a.uid(cls)}}));
  expectRefused(a.bytes(2), "unknown class NSSomethingElse");
  // Strings travel as plain values: a dictionary claiming to be one is unknown.
  HandArchive b;
  uint32_t string = b.addClass("NSString");
  b.add(b.object({{"NS.string", b.str("x")}, {"$class", b.uid(string)}}));
  expectRefused(b.bytes(2), "unknown class NSString");
}

TEST_F(ArchiveRejects, DictionaryKeysAndObjectsOfDifferentLengths) {
  HandArchive a;
  uint32_t root = a.add(0);
  uint32_t key = a.add(a.str("k"));
  uint32_t cls = a.addClass("NSDictionary", {"NSDictionary", "NSObject"});
  a.set(root, a.object({{"NS.keys", a.uids({key, key})},
                        {"NS.objects", a.uids({key})},
                        {"$class", a.uid(cls)}}));
  expectRefused(a.bytes(root), "differ in length");
}

TEST_F(ArchiveRejects, WrongValueTypesForKeys) {
  HandArchive a;
  expectRefused(recordArchive(a, {{"size", a.str("12")}}), "\"size\"");
  HandArchive b;
  expectRefused(recordArchive(b, {{"busy", b.str("YES")}}), "\"busy\"");
  HandArchive c;
  expectRefused(recordArchive(c, {{"size", c.plist().addReal(1.5)}}), "not an integer");
  HandArchive d;
  expectRefused(arrayArchive(d, d.object({{"x", d.uid(0)}})), "not an array");
  HandArchive e;
  // A plain array where an object is expected.
  uint32_t list = e.add(e.plist().addArray(std::vector<Ref>{}));
  expectRefused(arrayArchive(e, e.uids({list})), "not an object");
  HandArchive f;
  // An error whose domain is a number, and whose code does not fit.
  uint32_t root = f.add(0);
  uint32_t domain = f.add(f.integer(5));
  uint32_t cls = f.addClass("NSError", {"NSError", "NSObject"});
  f.set(root,
        f.object({{"NSDomain", f.uid(domain)}, {"NSCode", f.integer(1)}, {"$class", f.uid(cls)}}));
  expectRefused(f.bytes(root), "NSDomain");
}

TEST_F(ArchiveRejects, Cycles) {
  HandArchive self;
  expectRefused(arrayArchive(self, self.uids({1})), "contains itself");

  // array -> dictionary -> array
  HandArchive loop;
  uint32_t array = loop.add(0);
  uint32_t dict = loop.add(0);
  uint32_t key = loop.add(loop.str("k"));
  uint32_t arrayClass = loop.addClass("NSArray", {"NSArray", "NSObject"});
  uint32_t dictClass = loop.addClass("NSDictionary", {"NSDictionary", "NSObject"});
  loop.set(array,
           loop.object({{"NS.objects", loop.uids({dict})}, {"$class", loop.uid(arrayClass)}}));
  loop.set(dict, loop.object({{"NS.keys", loop.uids({key})},
                              {"NS.objects", loop.uids({array})},
                              {"$class", loop.uid(dictClass)}}));
  expectRefused(loop.bytes(array), "contains itself");
}

TEST_F(ArchiveRejects, NestingDeeperThan256) {
  HandArchive a;
  uint32_t cls = a.addClass("NSArray", {"NSArray", "NSObject"});
  uint32_t first = a.count();
  for (uint32_t i = 0; i < 300; ++i) {
    uint32_t next = first + i + 1;
    a.add(
        a.object({{"NS.objects", i == 299 ? a.uids({}) : a.uids({next})}, {"$class", a.uid(cls)}}));
  }
  expectRefused(a.bytes(first), "deeper than 256");
}

std::vector<uint8_t> indexPathArchive(int64_t length, std::vector<uint8_t> leb) {
  HandArchive a;
  uint32_t root = a.add(0);
  uint32_t data = a.add(a.plist().addData(leb));
  uint32_t cls = a.addClass("NSIndexPath", {"NSIndexPath", "NSObject"});
  a.set(root, a.object({{"NSIndexPathLength", a.integer(length)},
                        {"NSIndexPathData", a.uid(data)},
                        {"$class", a.uid(cls)}}));
  return a.bytes(root);
}

TEST_F(ArchiveRejects, BadIndexPathData) {
  ErrorPtr error;
  auto good = cast<IndexPath>(KeyedUnarchiver::unarchiveObjectWithData(
      indexPathArchive(3, {0x01, 0xac, 0x02, 0x02}), &error));
  ASSERT_TRUE(good) << describe(error);
  EXPECT_EQ(good->indexes(), (std::vector<uint64_t>{1, 300, 2}));

  expectRefused(indexPathArchive(2, {0x01, 0xac}), "NSIndexPathData");  // truncated
  expectRefused(
      indexPathArchive(2, {0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}),
      "NSIndexPathData");                                                           // > 64 bits
  expectRefused(indexPathArchive(4, {0x01, 0xac, 0x02, 0x02}), "NSIndexPathData");  // count
  expectRefused(indexPathArchive(2, {0x01, 0xac, 0x02, 0x02}), "NSIndexPathData");
  expectRefused(indexPathArchive(-1, {}), "negative");
}

TEST_F(ArchiveRejects, NotAKeyedArchive) {
  auto build = [](auto edit) {
    HandArchive a;
    a.add(a.str("x"));
    auto& p = a.plist();
    std::vector<std::pair<std::string, Ref>> entries = {
        {"$archiver", p.addString("NSKeyedArchiver")},
        {"$version", p.addInteger(100000)},
        {"$top", a.object({{"root", a.uid(1)}})},
        {"$objects", p.addArray(std::vector<Ref>{p.addString("$null"), p.addString("x")})}};
    edit(p, entries);
    std::vector<Ref> keys, values;
    for (auto& [k, v] : entries) {
      keys.push_back(p.addString(k));
      values.push_back(v);
    }
    return p.write(p.addDictionary(keys, values));
  };
  ErrorPtr error;
  auto fine = build([](BinaryPlist&, auto&) {});
  EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(fine, &error)) << describe(error);

  expectRefused(build([](BinaryPlist& p, auto& e) { e[0].second = p.addString("Other"); }),
                "$archiver");
  expectRefused(build([](BinaryPlist& p, auto& e) { e[1].second = p.addInteger(99999); }),
                "$version");
  expectRefused(build([](BinaryPlist& p, auto& e) { e[2].second = p.addInteger(1); }), "$top");
  expectRefused(
      build([](BinaryPlist& p, auto& e) { e[3].second = p.addArray(std::vector<Ref>{}); }),
      "$objects");
  expectRefused(build([](BinaryPlist&, auto& e) { e.pop_back(); }), "$objects");

  BinaryPlist array;
  expectRefused(array.write(array.addArray(std::vector<Ref>{})), "top level");
  const uint8_t text[] = "not a plist at all, just some text that is long enough";
  expectRefused(std::span(text, sizeof text), "binary property list");
}

TEST_F(ArchiveRejects, EveryTruncationAndByteFlipOfARealArchive) {
  auto error = Error::errorWithDomain(
      kPOSIXErrorDomain, 2,
      Dictionary::withStringKeys(
          {{"NSURL", Url::fileURLWithPath("/tmp/a b")}, {"path", IndexPath::make({1, 300, 2})}}));
  auto root = Array::make({error, SizeRecord::make(5, true), Uuid::make(), str("\xc3\xa9")});
  auto data = KeyedArchiver::archivedDataWithRootObject(root);
  ASSERT_TRUE(data);
  std::vector<uint8_t> bytes = data->bytes();
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    ErrorPtr e;
    EXPECT_EQ(KeyedUnarchiver::unarchiveObjectWithData(std::span(bytes.data(), length), &e),
              nullptr);
    EXPECT_TRUE(e) << length;
  }
  // A flipped byte may still decode (a changed integer), but never crashes
  // and never fails without saying so; only a root turned into UID 0 (nil)
  // gives nil without an error.
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    for (uint8_t mask : {0x01, 0x80, 0xff}) {
      std::vector<uint8_t> damaged = bytes;
      damaged[i] ^= mask;
      ErrorPtr e;
      auto object = KeyedUnarchiver::unarchiveObjectWithData(damaged, &e);
      if (object || e) continue;
      auto plist = BinaryPlist::parse(damaged);
      ASSERT_TRUE(plist) << i;
      auto top = plist->find(plist->top(), "$top");
      ASSERT_TRUE(top) << i;
      auto rootUid = plist->find(*top, "root");
      ASSERT_TRUE(rootUid) << i;
      EXPECT_EQ(plist->uid(*rootUid), 0u) << i;
    }
  }
}

}  // namespace
}  // namespace qx::testing
