// Class sets, class chains and the registry that restricted decoding relies on.
#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace qx {
namespace {

TEST(FoundationClassSet, ASubclassPassesWhereItsSuperclassIsAllowedNotTheReverse) {
  ClassSet arrays{&Array::classInfo(), &String::classInfo()};
  arrays.add(Array::classInfo());
  EXPECT_EQ(arrays.description(), "NSArray, NSString");
  EXPECT_TRUE(arrays.allows(MutableArray::classInfo()));
  EXPECT_FALSE(arrays.contains(MutableArray::classInfo()));
  EXPECT_FALSE(arrays.allows(Dictionary::classInfo()));
  EXPECT_FALSE(arrays.allows(Object::classInfo()));
  EXPECT_FALSE(ClassSet{&MutableArray::classInfo()}.allows(Array::classInfo()));
  EXPECT_TRUE(ClassSet{&Object::classInfo()}.allows(Url::classInfo()));
  EXPECT_FALSE(ClassSet().allows(String::classInfo()));
  EXPECT_EQ(MutableDictionary::classInfo().chain(),
            (std::vector<std::string_view>{"NSMutableDictionary", "NSDictionary", "NSObject"}));
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
