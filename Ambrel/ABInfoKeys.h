#pragma once

// The vocabulary of Info dictionaries, by level, and of plug-in forms. Constants only.

namespace ambrel {

/// Top level of a bundle's Info dictionary.
namespace bundlekey {
inline constexpr const char* plugIn = "ZQExtension";  // dictionary: the plug-in section
inline constexpr const char* oldStyle = "Ambrel";     // any: marks an old-style bundle
inline constexpr const char* identifier = "BWBundleIdentifier";
inline constexpr const char* version = "BWBundleVersion";
inline constexpr const char* shortVersion = "BWBundleShortVersionString";
inline constexpr const char* infoPlistURL = "BWBundleInfoPlistURL";  // never exported
inline constexpr const char* packageType = "BWBundlePackageType";
inline constexpr const char* service = "QMXService";  // dictionary: the plug-in's own service description
inline constexpr const char* buildToolPrefix = "DT";  // keys that begin so are dropped
}  // namespace bundlekey

/// The plug-in section (top dictionary).
namespace topkey {
inline constexpr const char* multiple = "Multiple";  // dictionary: identifier to plug-in dictionary
inline constexpr const char* hubProtocolVersion = "HubProtocolVersion";
}  // namespace topkey

/// One plug-in's own dictionary.
namespace plugInkey {
inline constexpr const char* pointIdentifier = "ZQExtensionPointIdentifier";  // the SDK's name
inline constexpr const char* attributes = "ZQExtensionAttributes";
inline constexpr const char* protocol = "ZQExtensionProtocol";
inline constexpr const char* principalClass = "PrincipalClass";
inline constexpr const char* shared = "Shared";
inline constexpr const char* cleanTimeout = "CleanTimeout";
inline constexpr const char* embeddedCode = "EmbeddedCode";
inline constexpr const char* embeddedProtocol = "EmbeddedProtocol";
inline constexpr const char* passProxy = "PassProxy";
inline constexpr const char* dedicated = "Dedicated";
inline constexpr const char* hostEntitlement = "ZQExtensionHostEntitlement";
}  // namespace plugInkey

/// A plug-in's attributes.
namespace attributekey {
inline constexpr const char* version = "ZQExtensionVersion";
inline constexpr const char* format = "com.veltra.format";
inline constexpr const char* pointName = "ZQExtensionPointName";
inline constexpr const char* requestsOpenAccess = "RequestsOpenAccess";
}  // namespace attributekey

/// A plug-in form.
namespace formkey {
inline constexpr const char* hubProtocolVersion = "hubProtocolVersion";
inline constexpr const char* path = "path";
inline constexpr const char* systemResident = "systemResident";
inline constexpr const char* identifier = "identifier";
inline constexpr const char* originalIdentifier = "original-identifier";
inline constexpr const char* version = "version";
inline constexpr const char* bundleInfo = "bundleInfo";
inline constexpr const char* info = "info";
inline constexpr const char* uuid = "uuid";
inline constexpr const char* lastModified = "lastmodified";
inline constexpr const char* annotations = "annotations";
inline constexpr const char* containingPath = "containingPath";
inline constexpr const char* localizedContainingDisplayName = "localizedContainingDisplayName";
inline constexpr const char* localizedDisplayName = "localizedDisplayName";
inline constexpr const char* localizedShortName = "localizedShortName";
inline constexpr const char* hash = "hash";
inline constexpr const char* requirement = "requirement";
inline constexpr const char* extensions = "extensions";
inline constexpr const char* overrider = "overrider";
inline constexpr const char* overriding = "overriding";
}  // namespace formkey

}  // namespace ambrel
