#include <gdal_priv.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  CPLSetConfigOption("GDAL_DRIVER_PATH", KESP_PLUGIN_DIR);
  GDALAllRegister();
  CPLSetErrorHandler(CPLQuietErrorHandler);
  const int result = RUN_ALL_TESTS();
  GDALDestroy();
  return result;
}
