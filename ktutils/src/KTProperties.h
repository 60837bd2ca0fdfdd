// KTProperties holds the name=value pairs of a small text configuration file, in order of first
// appearance, and answers look-ups by name. It never writes files and knows nothing of what the names
// mean. An object belongs to one thread; any number of processes may read one file.

#ifndef KTUTILS_KTPROPERTIES_H
#define KTUTILS_KTPROPERTIES_H

#include <list>
#include <memory>

#include "KTApi.h"

// One pair. It owns both texts.
class KT_API KTProperty {
 public:
  // Copies both. Throws KTAssertionException "str" for a null.
  KTProperty(const char* nameText, const char* valueText);
  ~KTProperty();
  KTProperty(const KTProperty&) = delete;
  KTProperty& operator=(const KTProperty&) = delete;

  // A fresh array with a copy of `str`, the caller's to delete. Throws KTAssertionException for a null.
  static char* copy(const char* str);
  // Replaces the value. Throws KTAssertionException for a null, and then keeps the old one.
  void setValue(const char* newValue);
  // The stored texts: the pair's own, valid until it changes or dies.
  const char* getName() const;
  const char* getValue() const;

  char* name = nullptr;  // both owned, from array new
  char* value = nullptr;

 private:
  KTProperty();
};

class KT_API KTProperties {
 public:
  KTProperties();
  ~KTProperties();
  KTProperties(const KTProperties&) = delete;
  KTProperties& operator=(const KTProperties&) = delete;

  // Merges the file's pairs into the list: a name that is already there keeps its place and takes the
  // new value. Returns false when the file cannot be opened; the list is then unchanged and nothing is
  // logged. Lines that are no pairs are skipped. Throws KTAssertionException for a null `filename`.
  //
  // A line is blank, a comment ("#" first), or name=value: white space around both is dropped, double
  // quotes in the value are blanks. A line is read in pieces of 1023 bytes, each parsed by itself.
  bool load(const char* filename);
  // The value of `name`, compared byte by byte, or null when there is none. The text is the list's,
  // valid until that pair changes. Throws KTAssertionException for a null.
  const char* getProperty(const char* name);
  // Replaces the value of `name`, or appends a pair. Throws KTAssertionException for a null.
  void setProperty(const char* name, const char* value);
  // Drops the pair of that name, if there is one. Throws KTAssertionException for a null.
  void remove(const char* name);
  void clear();

  // The text routines that `load` is made of. Each works in place on a terminated text.

  // Turns every `from` into `to`.
  static void replace(char* text, char from, char to);
  // The first position that is no white space, or the terminator.
  static char* skipWhiteSpaces(char* text);
  // The text without white space around it: its first position, the end cut in place.
  static char* trim(char* text);
  // The trimmed text before the first `separator` at or after `cursor`, which then stands behind the
  // separator; null, and `cursor` as it was, when there is no separator.
  static char* getNextValue(char*& cursor, char separator);

 private:
  using PropertyList = std::list<std::unique_ptr<KTProperty>>;

  PropertyList::iterator find(const char* name);
  void loadLine(char* line);

  PropertyList properties;
};

#endif
