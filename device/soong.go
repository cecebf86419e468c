// Resolves Android.bp with the platform's own build system, as in a vendor tree, and checks the result: which sources
// are compiled, with which flags, and whether each platform header is on the include path. The platform's modules are
// stubs. Then injects mistakes that have happened before, and checks that each is reported.
//
// usage, at the top of the tree: GO111MODULE=off GOPATH=/usr/share/gocode go run device/soong.go
package main

import (
	"fmt"
	"os"
	"path/filepath"
	"regexp"
	"sort"
	"strings"

	"android/soong/android"
	"android/soong/cc"
)

const (
	checkout = "vendor/zyttools/" // path of this tree in a vendor tree
	variant  = "android_vendor.VER_arm64_armv8-a_shared"
)

// The platform's modules, each with a folder for its headers, and a vendor's modules: those named in BoardConfig.mk
// and a node that links to the library as described in docs/device-build.md.
const platform = `
cc_library { name: "libcutils", vendor_available: true, export_include_dirs: ["stub/libcutils"], nocrt: true }
cc_library { name: "libdmabufheap", vendor_available: true, export_include_dirs: ["stub/libdmabufheap"], nocrt: true }
cc_library { name: "libui", vendor_available: true, export_include_dirs: ["stub/libui"], nocrt: true }
cc_library { name: "libutils", vendor_available: true, export_include_dirs: ["stub/libutils"], nocrt: true }
cc_library { name: "liblog", export_include_dirs: ["stub/liblog"], nocrt: true }
llndk_library { name: "liblog", symbol_file: "", export_include_dirs: ["stub/liblog"] }
cc_library { name: "libnativewindow", export_include_dirs: ["stub/libnativewindow"], nocrt: true }
llndk_library { name: "libnativewindow", symbol_file: "", export_include_dirs: ["stub/libnativewindow"] }
cc_library_headers { name: "libnativebase_headers", vendor_available: true, export_include_dirs: ["stub/libnativebase"] }
cc_library_static { name: "libgtest", host_supported: true }
cc_library_static { name: "libgmock", host_supported: true }
cc_library_headers { name: "vendor_headers", vendor: true, export_include_dirs: ["stub/vendor_headers"] }
cc_library_shared { name: "libframework", vendor: true, export_include_dirs: ["stub/libframework"], nocrt: true }
cc_library_shared { name: "node", vendor: true, srcs: ["node.cpp"], shared_libs: ["libzyttools"],
    header_libs: ["libzyttools_nodekit"], compile_multilib: "64" }
`

// The module folder of each platform header, which must be on the include path of every compilation.
var providers = map[string]string{
	"android/log.h":                     "stub/liblog",
	"android/set_abort_message.h":       "stub/liblog",
	"cutils/properties.h":               "stub/libcutils",
	"BufferAllocator/BufferAllocator.h": "stub/libdmabufheap",
	"ui/GraphicBuffer.h":                "stub/libui",
	"camxsettingsmanager.h":             "stub/libframework",
	"asvloffscreen.h":                   "stub/vendor_headers",
}

// Injected mistakes: a part of Android.bp, its replacement, and a word of the expected complaint.
var mistakes = [][3]string{
	{`init_rc: `, `init_rcs: `, `unrecognized property "init_rcs"`},
	{`vendor: true`, `vendors: true`, `unrecognized property "vendors"`},
	{`"libnativewindow"`, `"libnativewindows"`, `"libnativewindows"`},
	{`"libdmabufheap",`, `"libdmabufheap", "libnowhere",`, `"libnowhere"`},
	{`"common/tools/zytsignaltask/zytsignaltask.cpp",`, ``, `zytsignaltask.cpp`},
	{`"libcutils",`, ``, `<cutils/properties.h>`},
	{`common/tools/zyttools.map`, `common/tools/zyttool.map`, `zyttool.map`},
	{`"tests/zytutil_test.cpp"`, `"tests/zytutils_test.cpp"`, `zytutils_test.cpp`},
}

// Build directory for Soong.
var scratch, _ = os.MkdirTemp("", "zyttools-soong-")

// Sources that Soong does not build; Android.bp gives the reasons.
var notOnHost = regexp.MustCompile(`_aosp\.cpp$|^tests/(denoise|faultsweep|reliability|samplenode|zytview)_test\.cpp$`)

func fatal(format string, args ...interface{}) {
	fmt.Fprintf(os.Stderr, "device/soong.go: "+format+"\n", args...)
	os.RemoveAll(scratch)
	os.Exit(1)
}

func glob(patterns ...string) (files []string) {
	for _, pattern := range patterns {
		found, _ := filepath.Glob(pattern)
		files = append(files, found...)
	}
	return files
}

// Returns the sources of this tree that a module compiles, with their flags.
func compilations(module android.Module) map[string]string {
	flags := map[string]string{}
	for _, params := range module.BuildParamsForTests() {
		if strings.HasSuffix(params.Rule.String(), ".cc") {
			flags[strings.TrimPrefix(params.Input.String(), checkout)] = params.Args["cFlags"]
		}
	}
	return flags
}

// Returns the faults of an Android.bp in a tree whose BoardConfig.mk names these modules. With isHost the tests are
// built too.
func faults(bp string, named map[string]string, isHost bool) (list []string) {
	if isHost {
		// The only C library for the build machine in this Soong is glibc.
		bp = regexp.MustCompile(`linux_glibc: {\s*enabled: false`).ReplaceAllString(bp, "linux_glibc: { enabled: true")
	}
	fs := map[string][]byte{checkout + "Android.bp": []byte(bp)}
	config := cc.TestConfig(scratch, android.Android, nil, platform, fs)
	config.TestProductVariables.VendorVars = map[string]map[string]string{"zyttools": named}
	current, version := "current", "VER"
	config.TestProductVariables.DeviceVndkVersion = &current
	config.TestProductVariables.Platform_vndk_version = &version

	ctx := cc.CreateTestContext()
	for _, name := range []string{"soong_config_module_type", "cc_test_host"} {
		ctx.RegisterModuleType(name, android.ModuleTypeFactories()[name])
	}
	ctx.Register(config)
	_, errs := ctx.ParseFileList(".", []string{"Android.bp", checkout + "Android.bp"})
	if len(errs) == 0 {
		_, errs = ctx.PrepareBuildActions(config)
	}
	for _, err := range errs {
		list = append(list, err.Error())
	}
	if len(errs) > 0 {
		return list
	}

	var ninja strings.Builder
	if err := ctx.WriteBuildFile(&ninja); err != nil {
		fatal("%v", err)
	}
	commands := strings.ReplaceAll(ninja.String(), "$\n", "")
	list = append(list, sourceFaults(ctx, named)...)
	list = append(list, pathFaults(commands, isHost)...)
	list = append(list, flagFaults(commands)...)
	sort.Strings(list)
	return list
}

// Compares the sources of libzyttools with common/tools, and checks the include paths of the library and of a node.
func sourceFaults(ctx *android.TestContext, named map[string]string) (list []string) {
	compiled := compilations(ctx.ModuleForTests("libzyttools", variant).Module())
	for _, source := range glob("common/tools/*/*.cpp") {
		flags, found := compiled[source]
		if delete(compiled, source); !found {
			list = append(list, source+" is not compiled")
		} else {
			list = append(list, missingHeaders(source, flags, named)...)
		}
	}
	for source := range compiled {
		list = append(list, source+" is compiled, but none of the library's")
	}
	for _, flags := range compilations(ctx.ModuleForTests("node", variant).Module()) {
		for _, header := range glob("common/tools/*/*.h", "common/nodekit/*.h") {
			list = append(list, missingHeaders(header, flags, named)...)
		}
	}
	return list
}

// Returns paths of this tree that the commands name but that do not exist and, on the build machine, sources that no
// command names.
func pathFaults(commands string, isHost bool) (list []string) {
	isNamed := map[string]bool{}
	for _, match := range regexp.MustCompile(`(?:\s|-I)`+checkout+`([^\s:$]+)`).FindAllStringSubmatch(commands, -1) {
		isNamed[match[1]] = true
	}
	for path := range isNamed {
		if _, err := os.Stat(path); err != nil {
			list = append(list, "there is no "+path)
		}
	}
	for _, source := range glob("platform/host/src/*.cpp", "tests/*.cpp") {
		if isHost && !isNamed[source] && !notOnHost.MatchString(source) {
			list = append(list, source+" is not compiled on the build machine")
		}
	}
	return list
}

func flagFaults(commands string) (list []string) {
	variables := regexp.MustCompile(`(?m)^m\.libzyttools_`+variant+`\.(cflags|cppflags) = .*`).FindAllString(commands, -1)
	flags := strings.Join(strings.Fields(strings.Join(variables, " ")), " ") + " "
	for _, flag := range []string{"-std=c++17", "-fno-rtti", "-fexceptions", "-fvisibility=hidden", "-Wthread-safety",
		"-Werror"} {
		if !strings.Contains(flags, " "+flag+" ") {
			list = append(list, "libzyttools is compiled without "+flag)
		}
	}
	return list
}

// Returns the platform headers that a file includes and that the flags do not find.
func missingHeaders(file, flags string, named map[string]string) (list []string) {
	text, err := os.ReadFile(file)
	if err != nil {
		fatal("%v", err)
	}
	for _, match := range regexp.MustCompile(`(?m)^#include <(.*)>`).FindAllStringSubmatch(string(text), -1) {
		header := match[1]
		optional := header == "camxsettingsmanager.h" && named["camera_framework"] == ""
		if folder, ours := providers[header]; ours && !optional && !strings.Contains(flags+" ", "-I"+folder+" ") {
			list = append(list, fmt.Sprintf("%s: no module brings <%s>", file, header))
		}
	}
	return list
}

func main() {
	text, err := os.ReadFile("Android.bp")
	if err != nil {
		fatal("%v", err)
	}
	bp := string(text)
	headersOnly := map[string]string{"offscreen_headers": "vendor_headers"}
	both := map[string]string{"offscreen_headers": "vendor_headers", "camera_framework": "libframework"}
	for _, list := range [][]string{faults(bp, both, false), faults(bp, headersOnly, false), faults(bp, both, true)} {
		if len(list) > 0 {
			fatal("%s", strings.Join(list, "\n"))
		}
	}
	for _, mistake := range mistakes {
		broken := strings.Replace(bp, mistake[0], mistake[1], 1)
		if list := faults(broken, both, true); broken == bp || !strings.Contains(strings.Join(list, "\n"), mistake[2]) {
			fatal("%s in place of %s went unnoticed: %v", mistake[1], mistake[0], list)
		}
	}
	os.RemoveAll(scratch)
	fmt.Printf("resolved with and without a framework, on the build machine too; %d mistakes noticed\n", len(mistakes))
}
