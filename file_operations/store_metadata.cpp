#include "file_operations/store_metadata.h"

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"

namespace pallion {

bool PLFileManager::captureStoreDataFromDirectory(const URL& source, const URL& destination,
                                                  bool doCopy, bool failureIsFatal,
                                                  Error* error) const {
  constexpr char kFunction[] =
      "-[PLFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:]";
  for (const StoreMetadataItem& item : kStoreMetadataItems) {
    const URL sourceItem = source.appending(item.name, URL::Kind::kFile);
    const URL destinationItem = destination.appending(item.name, URL::Kind::kFile);
    Error underlying;
    const bool carried = doCopy ? copyItemIfExistsAtURL(sourceItem, destinationItem, &underlying)
                                : moveItemIfExistsAtURL(sourceItem, destinationItem, &underlying);
    if (carried) continue;
    ErrorDetails extra;
    extra.set(kLegacyErrorStringKey, Value::string(std::string(item.failureKey)));
    const Error record =
        doCopy ? _CreateAndLogError(kFunction, __LINE__, PLInstallerErrorDomain,
                                    kPLStoreMetadataFailed, underlying, &extra,
                                    "Failed to copy %@ to %@", sourceItem, destinationItem)
               : _CreateAndLogError(kFunction, __LINE__, PLInstallerErrorDomain,
                                    kPLStoreMetadataFailed, underlying, &extra,
                                    "Failed to move %@ to %@", sourceItem, destinationItem);
    if (!failureIsFatal) continue;
    if (error) *error = record;
    return false;
  }
  return true;
}

}  // namespace pallion
