#include "pysource/standalone/scanner/encodings.h"

#include <algorithm>
#include <array>

namespace pysource::standalone {
namespace {

struct CAlias {
  TextView python;
  const char* iconv;
};

// The names of Python's codecs that iconv does not know, or knows as another encoding, once "-"
// stands for "_". In ascending order. Shift JIS is CP932: in iconv's own the backslash is a yen sign.
constexpr std::array kAliases = std::to_array<CAlias>({
    {"1125", "CP1125"},
    {"1250", "CP1250"},
    {"1251", "CP1251"},
    {"1252", "CP1252"},
    {"1253", "CP1253"},
    {"1254", "CP1254"},
    {"1255", "CP1255"},
    {"1256", "CP1256"},
    {"1257", "CP1257"},
    {"1258", "CP1258"},
    {"646", "ASCII"},
    {"775", "CP775"},
    {"8859", "ISO-8859-1"},
    {"932", "CP932"},
    {"936", "GBK"},
    {"949", "CP949"},
    {"950", "CP950"},
    {"ansi_x3.4_1968", "ASCII"},
    {"ansi_x3.4_1986", "ASCII"},
    {"ansi_x3_4_1968", "ASCII"},
    {"big5_tw", "BIG5"},
    {"chinese", "GB2312"},
    {"cp1051", "HP-ROMAN8"},
    {"cp154", "PT154"},
    {"cp866u", "CP1125"},
    {"cp_is", "CP861"},
    {"csbig5", "BIG5"},
    {"csibm858", "CP858"},
    {"csibm861", "CP861"},
    {"csiso58gb231280", "GB2312"},
    {"csptcp154", "PT154"},
    {"csshiftjis", "CP932"},
    {"cyrillic_asian", "PT154"},
    {"elot_928", "ISO-8859-7"},
    {"euc_jis2004", "EUC-JISX0213"},
    {"euc_jis_2004", "EUC-JISX0213"},
    {"eucgb2312_cn", "GB2312"},
    {"eucjis2004", "EUC-JISX0213"},
    {"eucjisx0213", "EUC-JISX0213"},
    {"gb18030_2000", "GB18030"},
    {"gb2312_1980", "GB2312"},
    {"gb2312_80", "GB2312"},
    {"hkscs", "BIG5-HKSCS"},
    {"ibm1051", "HP-ROMAN8"},
    {"ibm1125", "CP1125"},
    {"iso2022_jp", "ISO-2022-JP"},
    {"iso2022_jp_1", "ISO-2022-JP-2"},
    {"iso2022_jp_2", "ISO-2022-JP-2"},
    {"iso2022_jp_2004", "ISO-2022-JP-3"},
    {"iso2022_jp_3", "ISO-2022-JP-3"},
    {"iso2022_kr", "ISO-2022-KR"},
    {"iso2022jp_1", "ISO-2022-JP-2"},
    {"iso2022jp_2", "ISO-2022-JP-2"},
    {"iso2022jp_2004", "ISO-2022-JP-3"},
    {"iso2022jp_3", "ISO-2022-JP-3"},
    {"iso8859", "ISO-8859-1"},
    {"iso_2022_jp_1", "ISO-2022-JP-2"},
    {"iso_2022_jp_2004", "ISO-2022-JP-3"},
    {"iso_646.irv_1991", "ASCII"},
    {"iso_8859_10_1992", "ISO-8859-10"},
    {"iso_8859_11_2001", "ISO-8859-11"},
    {"iso_8859_14_1998", "ISO-8859-14"},
    {"iso_8859_16_2001", "ISO-8859-16"},
    {"iso_8859_1_1987", "ISO-8859-1"},
    {"iso_8859_2_1987", "ISO-8859-2"},
    {"iso_8859_3_1988", "ISO-8859-3"},
    {"iso_8859_4_1988", "ISO-8859-4"},
    {"iso_8859_5_1988", "ISO-8859-5"},
    {"iso_8859_6_1987", "ISO-8859-6"},
    {"iso_8859_7_1987", "ISO-8859-7"},
    {"iso_8859_8_1988", "ISO-8859-8"},
    {"iso_8859_9_1989", "ISO-8859-9"},
    {"iso_ir_58", "GB2312"},
    {"jisx0213", "EUC-JISX0213"},
    {"korean", "EUC-KR"},
    {"ks_c_5601", "EUC-KR"},
    {"ks_c_5601_1987", "EUC-KR"},
    {"ks_x_1001", "EUC-KR"},
    {"ksc5601", "EUC-KR"},
    {"ksx1001", "EUC-KR"},
    {"kz1048", "RK1048"},
    {"kz_1048", "RK1048"},
    {"l9", "ISO-8859-15"},
    {"latin", "ISO-8859-1"},
    {"latin_1", "ISO-8859-1"},
    {"mac_centeuro", "MAC-CENTRALEUROPE"},
    {"mac_latin2", "MAC-CENTRALEUROPE"},
    {"mac_roman", "MACINTOSH"},
    {"maccentraleurope", "MAC-CENTRALEUROPE"},
    {"maclatin2", "MAC-CENTRALEUROPE"},
    {"macroman", "MACINTOSH"},
    {"ms1361", "JOHAB"},
    {"ms949", "CP949"},
    {"ms950", "CP950"},
    {"ms_kanji", "CP932"},
    {"mskanji", "CP932"},
    {"ptcp154", "PT154"},
    {"s_jis", "CP932"},
    {"s_jis_2004", "SHIFT_JISX0213"},
    {"s_jisx0213", "SHIFT_JISX0213"},
    {"shift_jis", "CP932"},
    {"shift_jis_2004", "SHIFT_JISX0213"},
    {"shift_jisx0213", "SHIFT_JISX0213"},
    {"shiftjis", "CP932"},
    {"shiftjis2004", "SHIFT_JISX0213"},
    {"sjis", "CP932"},
    {"sjis_2004", "SHIFT_JISX0213"},
    {"sjisx0213", "SHIFT_JISX0213"},
    {"thai", "ISO-8859-11"},
    {"tis_620_0", "TIS-620"},
    {"tis_620_2529_0", "TIS-620"},
    {"tis_620_2529_1", "TIS-620"},
    {"u_jis", "EUC-JP"},
    {"x_mac_japanese", "CP932"},
    {"x_mac_korean", "EUC-KR"},
    {"x_mac_simp_chinese", "GB2312"},
    {"x_mac_trad_chinese", "BIG5"},
});

constexpr bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool IsOrGoesOn(TextView name, TextView encoding) {
  return name.starts_with(encoding) &&
         (name.size() == encoding.size() || name[encoding.size()] == '-');
}

// Python's own form: one "_" for whatever separates words.
Text CodecName(TextView name) {
  Text result;
  bool gap = false;
  for (const char c : name) {
    if (!IsNameChar(c)) {
      gap = true;
      continue;
    }
    result += gap && !result.empty() ? "_" : "";
    result += c;
    gap = false;
  }
  return result;
}

const CAlias* FindAlias(TextView name) {
  const auto* const found =
      std::lower_bound(kAliases.begin(), kAliases.end(), name,
                       [](const CAlias& alias, TextView wanted) { return alias.python < wanted; });
  return found != kAliases.end() && found->python == name ? found : nullptr;
}

}  // namespace

Text NormalEncodingName(TextView declared) {
  Text name(declared);
  for (char& c : name) {
    c = c == '_' ? '-' : c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  // Python looks at the first 12 characters alone.
  const TextView head = TextView(name).substr(0, 12);
  if (IsOrGoesOn(head, "utf-8")) {
    return "utf-8";
  }
  for (const TextView latin : {"latin-1", "iso-8859-1", "iso-latin-1"}) {
    if (IsOrGoesOn(head, latin)) {
      return "iso-8859-1";
    }
  }
  return name;
}

Text IconvName(TextView normal_name) {
  const Text codec = CodecName(normal_name);
  if (const CAlias* const alias = FindAlias(codec)) {
    return alias->iconv;
  }
  Text name = codec;
  std::replace(name.begin(), name.end(), '_', '-');
  return name;
}

}  // namespace pysource::standalone
