#pragma once

// Made by segment_waveforms.py; not edited by hand.

namespace FullWaveform::Testing {

/// One word per waveform: samples below (b), equal to (e), above (a) the noise |
/// segments | index of the maximum of the inner samples.
inline constexpr auto segmentWaveforms = R"(
||0 b||0 e||0 a|1>4294967295|0 bb||0 be||0 ba||0 eb||0 ee||0 ea||0 ab|1>0|0 ae|1>0|0 aa|1>0|0 bbb||1
bbe||1 bba||1 beb||1 bee||1 bea||1 bab|0>1|1 bae|0>1|1 baa|0>1|1 ebb||1 ebe||1 eba||1 eeb||1 eee||1
eea||1 eab|0>1|1 eae|0>1|1 eaa|0>1|1 abb|1>1|1 abe|1>1|1 aba|1>1|1 aeb|1>1|1 aee|1>1|1 aea|1>1|1
aab|1>1|1 aae|1>1|1 aaa|1>1|1 bbbb||1 bbbe||1 bbba||1 bbeb||2 bbee||2 bbea||2 bbab|1>2|2 bbae|1>2|2
bbaa|1>2|2 bebb||1 bebe||1 beba||1 beeb||1 beee||1 beea||1 beab|1>2|2 beae|1>2|2 beaa|1>2|2
babb|0>2|1 babe|0>2|1 baba|0>2|1 baeb|0>2|1 baee|0>2|1 baea|0>2|1 baab|0>2|1 baae|0>2|1 baaa|0>2|1
ebbb||1 ebbe||1 ebba||1 ebeb||2 ebee||2 ebea||2 ebab|1>2|2 ebae|1>2|2 ebaa|1>2|2 eebb||1 eebe||1
eeba||1 eeeb||1 eeee||1 eeea||1 eeab|1>2|2 eeae|1>2|2 eeaa|1>2|2 eabb|0>2|1 eabe|0>2|1 eaba|0>2|1
eaeb|0>2|1 eaee|0>2|1 eaea|0>2|1 eaab|0>2|1 eaae|0>2|1 eaaa|0>2|1 abbb|1>1|1 abbe|1>1|1 abba|1>1|1
abeb|1>1|2 abee|1>1|2 abea|1>1|2 abab|1>2|2 abae|1>2|2 abaa|1>2|2 aebb|1>2|1 aebe|1>2|1 aeba|1>2|1
aeeb|1>2|1 aeee|1>2|1 aeea|1>2|1 aeab|1>2|2 aeae|1>2|2 aeaa|1>2|2 aabb|1>2|1 aabe|1>2|1 aaba|1>2|1
aaeb|1>2|1 aaee|1>2|1 aaea|1>2|1 aaab|1>2|1 aaae|1>2|1 aaaa|1>2|1 bbbbb||1 bbbbe||1 bbbba||1
bbbeb||3 bbbee||3 bbbea||3 bbbab|2>3|3 bbbae|2>3|3 bbbaa|2>3|3 bbebb||2 bbebe||2 bbeba||2 bbeeb||2
bbeee||2 bbeea||2 bbeab|2>3|3 bbeae|2>3|3 bbeaa|2>3|3 bbabb|1>3|2 bbabe|1>3|2 bbaba|1>3|2
bbaeb|1>3|2 bbaee|1>3|2 bbaea|1>3|2 bbaab|1>3|2 bbaae|1>3|2 bbaaa|1>3|2 bebbb||1 bebbe||1 bebba||1
bebeb||1 bebee||1 bebea||1 bebab|2>3|3 bebae|2>3|3 bebaa|2>3|3 beebb||1 beebe||1 beeba||1 beeeb||1
beeee||1 beeea||1 beeab|2>3|3 beeae|2>3|3 beeaa|2>3|3 beabb|1>3|2 beabe|1>3|2 beaba|1>3|2
beaeb|1>3|2 beaee|1>3|2 beaea|1>3|2 beaab|1>3|2 beaae|1>3|2 beaaa|1>3|2 babbb|0>2|1 babbe|0>2|1
babba|0>2|1 babeb|0>2|1 babee|0>2|1 babea|0>2|1 babab|0>2,2>3|1 babae|0>2,2>3|1 babaa|0>2,2>3|1
baebb|0>3|1 baebe|0>3|1 baeba|0>3|1 baeeb|0>3|1 baeee|0>3|1 baeea|0>3|1 baeab|0>3|1 baeae|0>3|1
baeaa|0>3|1 baabb|0>3|1 baabe|0>3|1 baaba|0>3|1 baaeb|0>3|1 baaee|0>3|1 baaea|0>3|1 baaab|0>3|1
baaae|0>3|1 baaaa|0>3|1 ebbbb||1 ebbbe||1 ebbba||1 ebbeb||3 ebbee||3 ebbea||3 ebbab|2>3|3
ebbae|2>3|3 ebbaa|2>3|3 ebebb||2 ebebe||2 ebeba||2 ebeeb||2 ebeee||2 ebeea||2 ebeab|2>3|3
ebeae|2>3|3 ebeaa|2>3|3 ebabb|1>3|2 ebabe|1>3|2 ebaba|1>3|2 ebaeb|1>3|2 ebaee|1>3|2 ebaea|1>3|2
ebaab|1>3|2 ebaae|1>3|2 ebaaa|1>3|2 eebbb||1 eebbe||1 eebba||1 eebeb||1 eebee||1 eebea||1
eebab|2>3|3 eebae|2>3|3 eebaa|2>3|3 eeebb||1 eeebe||1 eeeba||1 eeeeb||1 eeeee||1 eeeea||1
eeeab|2>3|3 eeeae|2>3|3 eeeaa|2>3|3 eeabb|1>3|2 eeabe|1>3|2 eeaba|1>3|2 eeaeb|1>3|2 eeaee|1>3|2
eeaea|1>3|2 eeaab|1>3|2 eeaae|1>3|2 eeaaa|1>3|2 eabbb|0>2|1 eabbe|0>2|1 eabba|0>2|1 eabeb|0>2|1
eabee|0>2|1 eabea|0>2|1 eabab|0>2,2>3|1 eabae|0>2,2>3|1 eabaa|0>2,2>3|1 eaebb|0>3|1 eaebe|0>3|1
eaeba|0>3|1 eaeeb|0>3|1 eaeee|0>3|1 eaeea|0>3|1 eaeab|0>3|1 eaeae|0>3|1 eaeaa|0>3|1 eaabb|0>3|1
eaabe|0>3|1 eaaba|0>3|1 eaaeb|0>3|1 eaaee|0>3|1 eaaea|0>3|1 eaaab|0>3|1 eaaae|0>3|1 eaaaa|0>3|1
abbbb|1>1|1 abbbe|1>1|1 abbba|1>1|1 abbeb|1>1|3 abbee|1>1|3 abbea|1>1|3 abbab|1>1,2>3|3
abbae|1>1,2>3|3 abbaa|1>1,2>3|3 abebb|1>1|2 abebe|1>1|2 abeba|1>1|2 abeeb|1>1|2 abeee|1>1|2
abeea|1>1|2 abeab|1>1,2>3|3 abeae|1>1,2>3|3 abeaa|1>1,2>3|3 ababb|1>3|2 ababe|1>3|2 ababa|1>3|2
abaeb|1>3|2 abaee|1>3|2 abaea|1>3|2 abaab|1>3|2 abaae|1>3|2 abaaa|1>3|2 aebbb|1>2|1 aebbe|1>2|1
aebba|1>2|1 aebeb|1>2|1 aebee|1>2|1 aebea|1>2|1 aebab|1>2,2>3|3 aebae|1>2,2>3|3 aebaa|1>2,2>3|3
aeebb|1>3|1 aeebe|1>3|1 aeeba|1>3|1 aeeeb|1>3|1 aeeee|1>3|1 aeeea|1>3|1 aeeab|1>3|3 aeeae|1>3|3
aeeaa|1>3|3 aeabb|1>3|2 aeabe|1>3|2 aeaba|1>3|2 aeaeb|1>3|2 aeaee|1>3|2 aeaea|1>3|2 aeaab|1>3|2
aeaae|1>3|2 aeaaa|1>3|2 aabbb|1>2|1 aabbe|1>2|1 aabba|1>2|1 aabeb|1>2|1 aabee|1>2|1 aabea|1>2|1
aabab|1>2,2>3|1 aabae|1>2,2>3|1 aabaa|1>2,2>3|1 aaebb|1>3|1 aaebe|1>3|1 aaeba|1>3|1 aaeeb|1>3|1
aaeee|1>3|1 aaeea|1>3|1 aaeab|1>3|1 aaeae|1>3|1 aaeaa|1>3|1 aaabb|1>3|1 aaabe|1>3|1 aaaba|1>3|1
aaaeb|1>3|1 aaaee|1>3|1 aaaea|1>3|1 aaaab|1>3|1 aaaae|1>3|1 aaaaa|1>3|1
)";

}  // namespace FullWaveform::Testing
