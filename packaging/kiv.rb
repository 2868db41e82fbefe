# Homebrew formula. The two lines marked RELEASE are filled in when a version is published.
class Kiv < Formula
  desc "Host-side development kit of the media-network cards"
  homepage "https://kiv.example/"
  url "https://kiv.example/kiv-0.1.1.tar.gz" # RELEASE: where the source archive is
  sha256 "0000000000000000000000000000000000000000000000000000000000000000" # RELEASE: of that archive
  license :cannot_represent

  depends_on "cli11" => :build
  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "pkgconf" => :build
  depends_on "cpp-httplib"
  depends_on "fmt"
  depends_on "libarchive"
  depends_on macos: :monterey
  depends_on :macos
  depends_on "nlohmann-json"
  depends_on "spdlog"

  uses_from_macos "curl"

  def install
    args = %W[-DKIV_BUILD_EXAMPLES=OFF -DKIV_BUILD_TESTS=OFF -DLibArchive_ROOT=#{Formula["libarchive"].opt_prefix}]
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja", *args, *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    assert_match version.to_s, shell_output("#{bin}/kivctl --version")
    (testpath/"test.c").write <<~C
      #include <kiv/kiv_api.h>
      #include <stdio.h>
      int main(void) {
          puts(kiv_result_name(KIV_ERR_NOT_OPENED));
          return 0;
      }
    C
    system ENV.cc, "test.c", "-I#{include}", "-L#{lib}", "-lkiv", "-o", "test"
    assert_equal "KIV_ERR_NOT_OPENED\n", shell_output("./test")
  end
end
