#pragma once

#include <nanobind/nanobind.h>

/// One function per module of the library and per helper of python/native; each adds its part to
/// `fullwaveform._core`.
void bindHost(nanobind::module_& module);
void bindScanner(nanobind::module_& module);
void bindModel(nanobind::module_& module);
void bindFitting(nanobind::module_& module);
void bindDeconvolution(nanobind::module_& module);
void bindOnline(nanobind::module_& module);
void bindPulseWaves(nanobind::module_& module);
void bindLas(nanobind::module_& module);
void bindSamples(nanobind::module_& module);
void bindPulseFit(nanobind::module_& module);
void bindUncertainty(nanobind::module_& module);
void bindEchoTable(nanobind::module_& module);
void bindCsv(nanobind::module_& module);
void bindDriver(nanobind::module_& module);
