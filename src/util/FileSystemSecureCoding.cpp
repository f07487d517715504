#include "corvane/FileSystemSecureCoding.hpp"

namespace corvane {

std::vector<SecureCodingClass> FileSystemSecureCoding::treeNodeSecureCodingClasses() {
  std::vector<SecureCodingClass> classes;
  classes.reserve(5);
  classes.push_back(SecureCodingClass::array);
  classes.push_back(SecureCodingClass::string);
  classes.push_back(SecureCodingClass::number);
  classes.push_back(SecureCodingClass::date);
  classes.push_back(SecureCodingClass::dictionary);
  return classes;
}

}  // namespace corvane
