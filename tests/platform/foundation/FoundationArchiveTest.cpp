// Every Foundation class through the keyed archive and back.
#include <gtest/gtest.h>

#include "platform/archive/BinaryPlist.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Foundation.h"

namespace qx {
namespace {

class FoundationArchive : public ::testing::Test {
 protected:
  void SetUp() override { registerFoundationClasses(); }

  static ObjectPtr roundTrip(const ObjectPtr& object) {
    DataPtr data = KeyedArchiver::archivedDataWithRootObject(object);
    EXPECT_TRUE(data);
    ErrorPtr error;
    ObjectPtr back = KeyedUnarchiver::unarchiveObjectWithData(*data, &error);
    EXPECT_EQ(error, nullptr) << (error ? error->localizedDescription() : "");
    return back;
  }

  template <class T>
  static std::shared_ptr<T> roundTripAs(const ObjectPtr& object) {
    auto back = cast<T>(roundTrip(object));
    EXPECT_TRUE(back) << "not decoded as the same class";
    return back;
  }

  // The archived $objects entry of the root, read with the plist reader.
  struct Archived {
    std::vector<uint8_t> bytes;
    BinaryPlist plist;
    BinaryPlist::Ref objects = 0;
    BinaryPlist::Ref root = 0;
  };
  static Archived archived(const ObjectPtr& object) {
    Archived a;
    a.bytes = KeyedArchiver::archivedDataWithRootObject(object)->bytes();
    a.plist = *BinaryPlist::parse(a.bytes);
    a.objects = *a.plist.find(a.plist.top(), "$objects");
    a.root = a.plist.element(a.objects, 1);
    return a;
  }
};

TEST_F(FoundationArchive, UrlsKeepSpacesPercentSignsAndNonUtf8Bytes) {
  for (std::string path :
       {"/tmp/with space", "/tmp/100%/x", "/tmp/\xff\xfe-not-utf8/\xc3\xa9", "/", "/a/b/c"}) {
    auto url = Url::fileURLWithPath(path);
    auto back = roundTripAs<Url>(url);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->path(), path);
    EXPECT_EQ(back->fileSystemRepresentation(), path);
    EXPECT_TRUE(back->isFileURL());
    EXPECT_TRUE(back->isEqual(*url));
  }
  auto a = archived(Url::fileURLWithPath("/tmp/a b%\xff"));
  auto relative = a.plist.find(a.root, "NS.relative");
  ASSERT_TRUE(relative);
  EXPECT_EQ(a.plist.string(a.plist.element(a.objects, a.plist.uid(*relative))),
            "file:///tmp/a%20b%25%FF");
  EXPECT_EQ(a.plist.uid(*a.plist.find(a.root, "NS.base")), 0u);
  auto web = roundTripAs<Url>(Url::URLWithString("https://host.invalid/x?y=1"));
  ASSERT_TRUE(web);
  EXPECT_EQ(web->absoluteString(), "https://host.invalid/x?y=1");
  EXPECT_FALSE(web->isFileURL());
}

TEST_F(FoundationArchive, IndexPathsOfEveryLength) {
  for (auto indexes :
       {std::vector<uint64_t>{}, std::vector<uint64_t>{42}, std::vector<uint64_t>{1, 300, 2},
        std::vector<uint64_t>{0, 127, 128, 16383, 16384, ~uint64_t(0)}}) {
    auto back = roundTripAs<IndexPath>(IndexPath::make(indexes));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->indexes(), indexes);
  }
  auto empty = archived(IndexPath::make({}));
  EXPECT_EQ(empty.plist.integer(*empty.plist.find(empty.root, "NSIndexPathLength")), 0);
  EXPECT_FALSE(empty.plist.find(empty.root, "NSIndexPathValue"));
  EXPECT_FALSE(empty.plist.find(empty.root, "NSIndexPathData"));

  auto one = archived(IndexPath::make({42}));
  EXPECT_EQ(one.plist.integer(*one.plist.find(one.root, "NSIndexPathLength")), 1);
  EXPECT_EQ(one.plist.integer(*one.plist.find(one.root, "NSIndexPathValue")), 42);
  EXPECT_FALSE(one.plist.find(one.root, "NSIndexPathData"));

  auto three = archived(IndexPath::make({1, 300, 2}));
  EXPECT_EQ(three.plist.integer(*three.plist.find(three.root, "NSIndexPathLength")), 3);
  auto data = three.plist.element(
      three.objects, three.plist.uid(*three.plist.find(three.root, "NSIndexPathData")));
  auto bytes = three.plist.data(data);
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.end()),
            (std::vector<uint8_t>{0x01, 0xac, 0x02, 0x02}));
}

TEST_F(FoundationArchive, ErrorsWithNestedUserInfo) {
  auto underlying = Error::errorWithDomain(kPOSIXErrorDomain, 13);
  auto info = Dictionary::withStringKeys({{"NSLocalizedDescription", str("Acces denied")},
                                          {"NSLocalizedRecoverySuggestion", str("Ask the owner")},
                                          {"NSURL", Url::fileURLWithPath("/home/x/a b")},
                                          {"NSUnderlyingError", underlying}});
  auto error = Error::errorWithDomain(kCocoaErrorDomain, kFileReadNoPermissionError, info);
  auto back = roundTripAs<Error>(error);
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->isEqual(*error));
  EXPECT_EQ(back->domain(), kCocoaErrorDomain);
  EXPECT_EQ(back->code(), kFileReadNoPermissionError);
  EXPECT_EQ(back->localizedDescription(), "Acces denied");
  EXPECT_EQ(back->localizedRecoverySuggestion(), "Ask the owner");
  ASSERT_TRUE(back->underlyingError());
  EXPECT_EQ(back->underlyingError()->code(), 13);
  EXPECT_EQ(back->userInfo()->objectForKeyAs<Url>("NSURL")->path(), "/home/x/a b");

  auto bare = roundTripAs<Error>(Error::errorWithDomain(kPOSIXErrorDomain, -5));
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->code(), -5);
  EXPECT_EQ(bare->userInfo()->count(), 0u);
}

TEST_F(FoundationArchive, UuidsDictionariesAndNestedArrays) {
  auto uuid = Uuid::make();
  auto back = roundTripAs<Uuid>(uuid);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->UUIDString(), uuid->UUIDString());
  auto a = archived(uuid);
  auto bytes = a.plist.data(*a.plist.find(a.root, "NS.uuidbytes"));
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), uuid->bytes().begin()));

  auto mutableDict = MutableDictionary::make();
  mutableDict->setObject(Number::numberWithInteger(1), "one");
  mutableDict->setObject(Array::make({str("x"), Array::make({Array::make()})}), "nested");
  auto dict = roundTripAs<MutableDictionary>(mutableDict);
  ASSERT_TRUE(dict);
  EXPECT_TRUE(dict->isEqual(*mutableDict));
  auto plain = roundTripAs<Dictionary>(Dictionary::withStringKeys({{"k", str("v")}}));
  ASSERT_TRUE(plain);
  EXPECT_FALSE(plain->isKindOfClass(MutableDictionary::classInfo()));
  EXPECT_EQ(plain->objectForKeyAs<String>("k")->str(), "v");

  ObjectPtr deep = Array::make({str("leaf")});
  for (int i = 0; i < 50; ++i) deep = Array::make({deep, Number::numberWithInteger(i)});
  auto deepBack = roundTrip(deep);
  ASSERT_TRUE(deepBack);
  EXPECT_TRUE(deepBack->isEqual(*deep));
}

TEST_F(FoundationArchive, SharedInstanceIsWrittenOnceAndDecodedOnce) {
  auto url = Url::fileURLWithPath("/shared");
  auto root = Array::make({url, Dictionary::withStringKeys({{"u", url}}), url});
  auto a = archived(root);
  auto elements = a.plist.find(a.root, "NS.objects");
  EXPECT_EQ(a.plist.uid(a.plist.element(*elements, 0)), a.plist.uid(a.plist.element(*elements, 2)));
  std::size_t urls = 0;
  for (std::size_t i = 0; i < a.plist.count(a.objects); ++i) {
    auto value = a.plist.element(a.objects, i);
    if (a.plist.type(value) == BinaryPlist::Type::String &&
        a.plist.string(value) == "file:///shared") {
      ++urls;
    }
  }
  EXPECT_EQ(urls, 1u);
  auto back = roundTripAs<Array>(root);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->objectAtIndex(0), back->objectAtIndex(2));
  EXPECT_EQ(back->objectAs<Dictionary>(1)->objectForKey("u"), back->objectAtIndex(0));
}

}  // namespace
}  // namespace qx
