// Enters the tags that are read into the indexes.
#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"

bool CKespFile::ProcessTag(CKespTag* tag) {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  CString name;
  float unused = 0;
  switch (tag->GetType()) {
    case KESP_TAG_GPS_MARK: {
      std::uint32_t time1 = 0;
      std::uint32_t time2 = 0;
      if (tag->GetGPSMark(name, first, second, time1, time2)) {
        m_gpsMarkIndex.SetAt(CGPSTime(time1, time2), CKespFeaturePtPair(first, second));
      }
      break;
    }
    case KESP_TAG_QUALITY_MARK:
      // Entered under 0 if the mark can't be read.
      (void)tag->GetQualityMark(first, unused, unused, unused, unused);
      m_qualityMarkIndex.SetAt(first, tag);
      break;
    case KESP_TAG_QUALITY_MARK_EX: {
      int integer = 0;
      (void)tag->GetQualityMarkEx(first, unused, unused, unused, unused, integer);
      m_qualityMarkIndex.SetAt(first, tag);
      break;
    }
    case KESP_TAG_FEATURE_LINK: {
      CKespFeatureLink link;
      if (tag->GetFeatureLink(link)) AddFeatureLink(link);
      break;
    }
    case KESP_TAG_NAMED_FLAG:
      (void)tag->GetNamedFlag(first, second, name);
      if (name.CompareNoCase(u"FeatureChanges") == 0) m_featureChangesIndex.SetAt(first, tag);
      break;
    default:
      break;
  }
  return true;
}

bool CKespFile::AddFeatureLink(const CKespFeatureLink& link) {
  CKespFeatureLink* const copy = &m_own->links.emplace_back(link);
  m_featureLinks.push_back(copy);
  // A feature linked to itself gets the link in its list twice.
  for (const std::uint32_t number : {link.m_featureNumber1, link.m_featureNumber2}) {
    CKespLinkList* list = nullptr;
    if (!m_linkListIndex.Lookup(number, list)) {
      list = &m_own->linkLists.emplace_back();
      m_linkListIndex.SetAt(number, list);
    }
    list->Add(copy);
  }
  return true;
}
