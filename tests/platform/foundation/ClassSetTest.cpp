// Class sets and the class chain that restricted decoding relies on.
#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace qx {
namespace {

TEST(FoundationClassSet, SubclassPassesWhereSuperclassIsAllowedNotTheReverse) {
  ClassSet arrays{&Array::classInfo()};
  EXPECT_TRUE(arrays.allows(MutableArray::classInfo()));
  EXPECT_TRUE(arrays.allows(Array::classInfo()));
  ClassSet mutableArrays{&MutableArray::classInfo()};
  EXPECT_FALSE(mutableArrays.allows(Array::classInfo()));
  EXPECT_FALSE(arrays.allows(Dictionary::classInfo()));
  EXPECT_FALSE(arrays.allows(Object::classInfo()));
  EXPECT_TRUE(ClassSet{&Object::classInfo()}.allows(Url::classInfo()));
}

TEST(FoundationClassSet, ContainsOnlyNamedClassesOnceAndDescribesThem) {
  ClassSet set{&Array::classInfo(), &String::classInfo()};
  set.add(Array::classInfo());
  EXPECT_TRUE(set.contains(Array::classInfo()));
  EXPECT_FALSE(set.contains(MutableArray::classInfo()));
  EXPECT_EQ(set.description(), "NSArray, NSString");
  EXPECT_TRUE(ClassSet().empty());
  EXPECT_FALSE(ClassSet().allows(String::classInfo()));
}

TEST(FoundationClassSet, ClassChainsEndWithNSObject) {
  EXPECT_EQ(MutableDictionary::classInfo().chain(),
            (std::vector<std::string_view>{"NSMutableDictionary", "NSDictionary", "NSObject"}));
  EXPECT_EQ(Url::classInfo().chain(), (std::vector<std::string_view>{"NSURL", "NSObject"}));
  EXPECT_TRUE(MutableDictionary::make()->isKindOfClass(Dictionary::classInfo()));
  EXPECT_FALSE(Dictionary::make()->isKindOfClass(MutableDictionary::classInfo()));
}

TEST(FoundationClassRegistry, FindsRegisteredClassesByWireName) {
  registerFoundationClasses();
  registerFoundationClasses();  // harmless again
  for (const ClassInfo* cls :
       {&Array::classInfo(), &MutableArray::classInfo(), &Dictionary::classInfo(),
        &MutableDictionary::classInfo(), &Uuid::classInfo(), &Url::classInfo(),
        &IndexPath::classInfo(), &Error::classInfo()}) {
    const auto* entry = ClassRegistry::lookup(cls->name());
    ASSERT_NE(entry, nullptr) << cls->name();
    EXPECT_EQ(entry->cls, cls);
  }
  EXPECT_EQ(ClassRegistry::lookup("NSNoSuchClass"), nullptr);
}

}  // namespace
}  // namespace qx
