// Audio files through the library: what libsndfile writes in another format
// (FLAC, AIFF) decodes as the WAV does, and raw PCM is read at the rate given.
#include <nimbara/api/command.h>
#include <nimbara/audio/audio_file.h>
#include <nimbara/receiver/receiver.h>

#include <gtest/gtest.h>

#include <sndfile.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace {

std::vector<std::int16_t> flashSamples() {
  nimbara::Command command;
  command.verb = "flash";
  command.red = 12;
  command.green = 34;
  command.blue = 56;
  return nimbara::renderCommand(command);
}

void writeWith(const std::string& path, int format, const std::vector<std::int16_t>& samples) {
  SF_INFO info{};
  info.samplerate = 44100;
  info.channels = 2;
  info.format = format;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
  sf_writef_short(file, samples.data(), static_cast<sf_count_t>(samples.size() / 2));
  sf_close(file);
}

TEST(AudioFiles, EveryFormatLibsndfileWritesDecodesTheSame) {
  const auto samples = flashSamples();
  const std::string dir = ::testing::TempDir();
  nimbara::writeAudioFile(dir + "flash.wav", samples);
  writeWith(dir + "flash.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, samples);
  writeWith(dir + "flash.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, samples);
  for (const char* name : {"flash.wav", "flash.flac", "flash.aiff"}) {
    nimbara::WavAudio audio;
    std::string error;
    ASSERT_TRUE(nimbara::readWavFile(dir + name, &audio, &error)) << name << ": " << error;
    EXPECT_EQ(audio.samples.size(), samples.size()) << name;
    const auto heard = nimbara::decodeAudio(audio);
    ASSERT_EQ(heard.size(), 1u) << name;
    EXPECT_EQ(heard[0].command, "flash");
    EXPECT_EQ(heard[0].green, 34);
    std::remove((dir + name).c_str());
  }
}

TEST(AudioFiles, RawPcmIsReadAtTheRateGivenAndNonsenseIsRefused) {
  const auto samples = flashSamples();
  const std::string path = ::testing::TempDir() + "flash.raw";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(samples.data()),
             static_cast<std::streamsize>(samples.size() * 2));
  std::size_t frames = 0;
  const auto format = nimbara::readAudioFile(
      path, [&](const float*, std::size_t n, const nimbara::AudioFileFormat&) { frames += n; },
      nimbara::RawPcm{true, 22050, 2});
  EXPECT_EQ(format.rate, 22050);
  EXPECT_EQ(frames, samples.size() / 2);
  std::ofstream(path) << "not audio at all";
  EXPECT_THROW(nimbara::readAudioFile(
                   path, [](const float*, std::size_t, const nimbara::AudioFileFormat&) {}),
               std::runtime_error);
  std::remove(path.c_str());
  EXPECT_THROW(nimbara::writeAudioFile("/nonexistent/dir/x.wav", samples), std::runtime_error);
}

}  // namespace
