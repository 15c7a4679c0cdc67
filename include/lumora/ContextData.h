/// @file
/// @brief ContextData: the JSON document that every payload of the library
/// passes through (liblumora-common).
#ifndef LUMORA_CONTEXTDATA_H
#define LUMORA_CONTEXTDATA_H

#include <json/value.h>
#include <lumora/lumora-export.h>

#include <string>

/**
 * One JSON document: a root value and the text of its last serialisation.
 * The root is an empty object at first; MakeData() may make it any JSON
 * value, and setting a member turns a root that is not an object into an
 * empty object first.
 *
 * Keys are plain member names of the top-level object; a null key is ignored
 * (reads as missing, sets nothing). Nothing here throws for a missing member
 * or a member of another type: a missing string reads as "", a missing
 * integer or count as 0, and IsValid() is the test to make first. Copies are
 * deep. An instance is used by one thread at a time.
 */
class LUMORA_EXPORT ContextData {
public:
    /// An empty document: the root is an empty object.
    ContextData();
    /// Destroys the document; a text from MakeStr() goes with it.
    ~ContextData();
    /// @name Copy and move
    /// Copies are deep: the root value and the last serialised text.
    /// @{
    ContextData(const ContextData&) = default;                 ///< Deep copy.
    ContextData& operator=(const ContextData&) = default;      ///< Deep copy.
    ContextData(ContextData&&) noexcept = default;             ///< Moves the root and the text.
    ContextData& operator=(ContextData&&) noexcept = default;  ///< Moves the root and the text.
    /// @}

    /// Parses json and makes it the root. False for a null pointer, an empty
    /// or truncated text, or anything after the value; the document is then
    /// left as it was.
    bool MakeData(const char* json);

    /// Serialises the root as compact JSON ("{}" for an empty document). The
    /// text belongs to the document and stays valid until the next MakeStr(),
    /// an assignment to the document, or its destruction; never free it.
    char* MakeStr();

    /// A copy of member key as a document of its own; empty when missing or
    /// null.
    ContextData GetValue(const char* key);
    /// A copy of element index (from 0) of the array member key; empty when
    /// the member is not an array or the index is out of range.
    ContextData GetValue(const char* key, int index);
    /// The member as an int (jsoncpp's conversions: a boolean gives 0 or 1, a
    /// real in range is truncated); 0 when missing, null, not a number, or out
    /// of int's range.
    int GetValueInt(const char* key);
    /// The member as a string (numbers and booleans are converted); "" when
    /// missing, null, an object or an array.
    std::string GetValueStr(const char* key);
    /// Element index of the array member key as a string, as GetValueStr does.
    std::string GetValueStrFromArray(const char* key, int index);
    /// Number of elements of the array member key; 0 when missing or not an array.
    int GetSize(const char* key);
    /// True when the root has a member key whose value is not null.
    bool IsValid(const char* key);

    /// @name Scalar setters
    /// Set a scalar member, replacing any earlier value. A null string value
    /// stores JSON null.
    /// @{
    void SetValue(const char* key, const char* value);  ///< A string member, or JSON null for a null value.
    void SetValue(const char* key, std::string value);  ///< A string member.
    void SetValue(const char* key, int value);          ///< An integer member.
    /// @}
    /// Appends value's root as the new last element of the array member key,
    /// creating the array when the member is absent (or is not an array).
    void SetValue(const char* key, ContextData& value);
    /// Stores value's root as member key itself, replacing any earlier value.
    void SetValueNoArry(const char* key, ContextData& value);
    /// Removes member key; nothing happens when it is absent.
    void RemoveMember(const char* key);

private:
    friend class ContextDataAccess;  // internal helpers of the implementation

    Json::Value m_jsonRoot;
    std::string m_strText;
};

#endif  // LUMORA_CONTEXTDATA_H
