// Resolves Android.bp with the platform's own build system, as in a vendor tree, and checks the result: which sources
// are compiled, with which flags, what is linked, and whether each platform header and those that it includes in turn
// are on the include path. The platform's modules are stubs.
//
// usage, at the top of the tree: GO111MODULE=off GOPATH=/usr/share/gocode go run device/soong.go
package main

import (
	"fmt"
	"os"
	"path/filepath"
	"regexp"
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
cc_library_shared { name: "node", vendor: true, srcs: ["node.cpp"], defaults: ["zyttools_node_defaults"] }
`

// The modules of each platform header and of what it includes in turn. Their folders must be on the include path of
// every compilation.
var providers = map[string][]string{
	"android/log.h":                     {"liblog"},
	"android/set_abort_message.h":       {"liblog"},
	"cutils/properties.h":               {"libcutils"},
	"cutils/trace.h":                    {"libcutils"},
	"BufferAllocator/BufferAllocator.h": {"libdmabufheap"},
	"ui/GraphicBuffer.h":                {"libui", "libutils", "libnativebase", "libnativewindow"},
	"camxsettingsmanager.h":             {"libframework"},
	"asvloffscreen.h":                   {"vendor_headers"},
}

// Build directory for Soong.
var scratch, _ = os.MkdirTemp("", "zyttools-soong-")

// Sources that Soong does not build; Android.bp gives the reasons.
var notOnHost = regexp.MustCompile(`_aosp\.cpp$|^tests/((denoise|faultsweep|reliability|samplenode|strict|zytview)_test|lockrules)\.cpp$`)

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
	list = append(sourceFaults(ctx, named), linkFaults(ctx, named)...)
	return append(list, flagFaults(commands)...)
}

// Returns what the library is not linked to.
func linkFaults(ctx *android.TestContext, named map[string]string) (list []string) {
	linked := ctx.ModuleForTests("libzyttools", variant).Rule("ld").Args["libFlags"]
	for _, name := range []string{"libcutils", "libdmabufheap", "liblog", "libnativewindow", "libui", "libutils",
		named["camera_framework"]} {
		if name != "" && !strings.Contains(linked, "/"+name+".") {
			list = append(list, "libzyttools is not linked to "+name)
		}
	}
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

// Returns the paths that Android.bp names but that do not exist, and the sources that it does not name.
func pathFaults(bp string) (list []string) {
	for _, match := range regexp.MustCompile(`"((common|device|platform|tests)/[^"]*)"`).FindAllStringSubmatch(bp, -1) {
		if _, err := os.Stat(match[1]); err != nil {
			list = append(list, "there is no "+match[1])
		}
	}
	for _, source := range glob("platform/host/src/*.cpp", "tests/*.cpp") {
		if !strings.Contains(bp, `"`+source+`"`) && !notOnHost.MatchString(source) {
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
	if strings.Contains(commands, "m.libzyttools_android_vendor.VER_arm_") {
		list = append(list, "libzyttools is compiled for 32 bits")
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
		for _, module := range providers[header] {
			if !optional && !strings.Contains(flags+" ", "-Istub/"+module+" ") {
				list = append(list, fmt.Sprintf("%s: <%s> needs the headers of %s", file, header, module))
			}
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
	for _, list := range [][]string{pathFaults(bp), faults(bp, both, false), faults(bp, headersOnly, false),
		faults(bp, both, true)} {
		if len(list) > 0 {
			fatal("%s", strings.Join(list, "\n"))
		}
	}
	os.RemoveAll(scratch)
	fmt.Println("resolved with and without a framework, and on the build machine")
}
