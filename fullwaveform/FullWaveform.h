#pragma once

#include <fullwaveform/Export.h>  // first, so that its message on the language level comes first

/// The whole public interface of the library.
#include <fullwaveform/deconvolution/DeconvolvedSignal.h>
#include <fullwaveform/deconvolution/RL_Planes.h>
#include <fullwaveform/deconvolution/RichardsonLucy.h>
#include <fullwaveform/deconvolution/SystemWaveFit.h>
#include <fullwaveform/driver/BlockReport.h>
#include <fullwaveform/driver/FWFModus.h>
#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <fullwaveform/driver/RunStatistics.h>
#include <fullwaveform/driver/ShotMap.h>
#include <fullwaveform/fitting/BaselineFit.h>
#include <fullwaveform/fitting/FittingGaussVia3Points.h>
#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>
#include <fullwaveform/fitting/GaussianRefinement.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/host/Attributes.h>
#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/Console.h>
#include <fullwaveform/host/DataRange.h>
#include <fullwaveform/host/Grid.h>
#include <fullwaveform/host/MemArray.h>
#include <fullwaveform/host/MultiArray.h>
#include <fullwaveform/host/PointerID.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/SpeakPtr.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/host/TarnClass.h>
#include <fullwaveform/host/VectorToPDF.h>
#include <fullwaveform/model/AdditionalAttributesPerWave.h>
#include <fullwaveform/model/AsciiExport.h>
#include <fullwaveform/model/MarkBadPeaks.h>
#include <fullwaveform/model/NoiseEstimate.h>
#include <fullwaveform/model/Peak.h>
#include <fullwaveform/model/PrintWave.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/online/OnlineEvaluation.h>
#include <fullwaveform/pulsefit/PulseFit.h>
#include <fullwaveform/pulsefit/PulseModel.h>
#include <fullwaveform/scanner/ExtraAttributes.h>
#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/scanner/SpeedOfLight.h>
#include <fullwaveform/scanner/SystemWave.h>
#include <fullwaveform/work/RunMonitor.h>
#include <fullwaveform/work/WorkMeter.h>
